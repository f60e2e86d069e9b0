// In-process: the player's status reply, the event category, the replies' values from the
// video state, and the monitor polled one step at a time against player_sim, a socket pair's
// end standing in for the sender's reverse connection.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "airplay/airplay.h"
#include "airplay/video/airplay_video.h"
#include "main/daemon.h"
#include "support/airplay_sender.h"

namespace {

using Events = std::vector<std::string>;

TEST(VideoParseInfo, Table) {
    // Fields start at 7 so that "left alone" shows: status, seek, duration, position.
    const std::string spaces30(30, ' ');
    const std::pair<std::string, std::vector<int>> cases[] = {
        {"<currentStatus>pause<x><currentStatus>play<", {1, 0, 0, 0}},  // tags in their order
        {"<currentStatus>playing</currentStatus>", {4, 0, 0, 0}},       // not a known tag
        {"<totalTime>90</totalTime><currentTime> 30.7</currentTime>", {4, 0, 90, 30}},
        {"<currentTime>-12abc</currentTime>", {4, 0, 0, -12}},
        {"<currentTime>x</currentTime>", {4, 0, 0, 0}},
        {"<totalTime>90", {4, 0, 7, 0}},  // no "<" after the value: the old value stays
        {"<totalTime>99999999999999<", {4, 0, INT_MAX, 0}},  // clamped, never undefined
        {"<totalTime>" + spaces30 + "5<", {4, 0, 5, 0}},     // cut to 31 characters
        {"<totalTime> " + spaces30 + "5<", {4, 0, 0, 0}},
    };
    for (const auto& [text, fields] : cases) {
        video_status_record vs{7, 7, 7, 7, 7};
        airplay_video_parse_info(text.c_str(), &vs);
        EXPECT_EQ((std::vector<int>{vs.status, vs.seek_enabled, vs.duration, vs.position}), fields)
            << text.substr(0, 60);
    }
    video_status_record vs{7, 7, 7, 3, 7};
    airplay_video_parse_info(nullptr, &vs);  // no reply: the record stays as it was
    EXPECT_EQ(vs.duration, 3);
}

class PairTest : public ::testing::Test {
   protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_IGN);
        daemon_init_session(&g_daemon.session);
        video_record_change([](video_record& r) { r = video_record{}; });
    }
    void TearDown() override { g_daemon.session.event_socket = 0; }
    std::string drain() {
        std::string out;
        char buf[8192];
        for (ssize_t n; (n = recv(pair_.peer, buf, sizeof(buf), MSG_DONTWAIT)) > 0;)
            out.append(buf, n);
        return out;
    }
    // The states of the events the sender has received since the last call.
    Events events() {
        std::string data = drain();
        Events out;
        for (size_t at = 0; (at = data.find("POST /event", at)) != std::string::npos; ++at)
            out.push_back(zt::plist_value(data.substr(at), "state"));
        return out;
    }
    zt::SocketPair pair_;  // sock: the daemon's end, peer: the sender's
};

using PlaybackEvent = PairTest;

TEST_F(PlaybackEvent, CategoryFollowsWhatIsShownAndNeedsAReverseConnection) {
    // The exact bytes are checked against the daemon; here the choice of category.
    auto category = [&](unsigned mask, const char* state) {
        g_daemon.session.activity_mask = mask;
        send_playback_event_xml(&g_daemon.session, state);
        return zt::plist_value(zt::body_of(drain()), "category");
    };
    EXPECT_EQ(send_playback_event_xml(&g_daemon.session, "playing"), -1);  // none yet
    airplay_events_attach(&g_daemon.session, pair_.sock);
    EXPECT_EQ(category(kActivityVideo, "playing"), "video");
    EXPECT_EQ(category(kActivityVideo | kActivityPhoto, "paused"), "photo");
    testing::internal::CaptureStdout();
    EXPECT_EQ(category(0, "stopped"), "video");
    // The sender has gone: the connection is dropped and forgotten, with one line naming it.
    pair_.close_peer();
    EXPECT_EQ(send_playback_event_xml(&g_daemon.session, "paused"), -1);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("WARNING : no current media type, force video\n"), std::string::npos);
    EXPECT_NE(log.find("unable to send out(" + std::to_string(pair_.sock) + ")"), std::string::npos)
        << log;
    EXPECT_EQ(g_daemon.session.event_socket, 0);
}

using DispatchValues = PairTest;

TEST_F(DispatchValues, PlaybackInfoScrubAndAccessLogFollowTheVideo) {
    // The reply formats are checked byte for byte against the daemon; here the values.
    auto body = [&](int status, int position, int duration, const std::string& request) {
        video_record_change([=](auto& r) { r.video_status = {status, 4, position, duration}; });
        pair_.send(request + " HTTP/1.1\r\n\r\n");
        net_conn conn;
        conn_open(&conn, pair_.sock, 0);
        EXPECT_EQ(airplay_dispatch(&g_daemon.session, &conn), 200) << request;
        return zt::body_of(drain());
    };
    const std::string info = "GET /playback-info", access = "POST /getProperty?playbackAccessLog";
    std::string b = body(1, 30, 120, info);
    EXPECT_EQ(zt::plist_value(b, "duration"), "120.000000");
    EXPECT_EQ(zt::plist_value(b, "position"), "30.000000");
    EXPECT_EQ(zt::plist_value(b, "rate"), "1");
    EXPECT_EQ(zt::occurrences(b, "<real>120.000000</real>"), 3u);  // and both time ranges
    EXPECT_EQ(body(1, 30, 120, "GET /scrub"), "duration: 120.000000\r\nposition: 30.000000\r\n");
    b = body(1, 30, 120, access);
    EXPECT_EQ(zt::plist_value(b, "bytes"), "15360");
    EXPECT_EQ(zt::plist_value(b, "c-duration-downloaded"), "35");
    EXPECT_EQ(zt::plist_value(b, "c-duration-watched"), "30.000000");
    EXPECT_EQ(zt::plist_value(body(3, 118, 120, info), "rate"), "0");
    EXPECT_EQ(zt::plist_value(body(3, 118, 120, access), "c-duration-downloaded"), "120");
    // Player numbers at the edge of the int range do not overflow the arithmetic.
    EXPECT_EQ(zt::plist_value(body(3, INT_MAX, INT_MAX, access), "c-duration-downloaded"),
              std::to_string(INT_MAX));
}

class Monitor : public PairTest {
   protected:
    void SetUp() override {
        PairTest::SetUp();
        ASSERT_TRUE(box_.start_player());
    }
    static int poll() { return airplay_video_monitor(&g_daemon.session); }
    size_t queries() const { return box_.count("get_current_vod_info"); }
    // Tells player_sim what (unless empty), polls once: the status and the sender's events.
    void step(const std::string& what, int status, const Events& sent = {}) {
        if (!what.empty()) box_.sim("/sim/" + what);
        size_t asked = queries();
        EXPECT_EQ(poll(), status) << what;
        EXPECT_EQ(queries(), asked + 1) << what;  // a started video is always followed
        EXPECT_EQ(events(), sent) << what;
    }
    // One pass of the main loop once its busy countdown has run out: whether it stays busy.
    static bool stays_busy() {
        g_daemon.pipe_fd = -1;
        g_daemon.poll_interval_us = kPollBusyUs;
        int countdown = 0;
        daemon_poll_pass(&countdown);
        return g_daemon.poll_interval_us == kPollBusyUs;
    }

    zt::Box box_;
};

TEST_F(Monitor, StatesFromStartToEnd) {
    const std::string refuse = "refuse?cmd=get_current_vod_info&count=1";
    EXPECT_EQ(poll(), 4);  // no video, no query
    EXPECT_EQ(queries(), 0u);
    // What a successful POST /play leaves behind.
    video_record_change([](video_record& r) {
        r.video_status.status = r.video_status.last_status = 0;
        r.video_started = 1;
        ++r.starts;
    });
    airplay_events_attach(&g_daemon.session, pair_.sock);
    step(refuse, 0);  // before the player has reported anything a refusal changes nothing
    // The stop the player still shows right after the start is no event, however long.
    step("force?vod=stop", 4);
    step("", 4);
    EXPECT_EQ(video_record_copy().video_status.last_status, 0);
    step("force?vod=buffering", 2, {"loading"});
    step(refuse, 4);  // while buffering: back to stopped without telling the sender
    step("force?vod=pause", 3, {"paused"});
    step("", 3);                                        // no change, no event
    step("close?cmd=get_current_vod_info&count=1", 3);  // a silent player changes nothing
    step("force?vod=play", 1, {"playing"});
    EXPECT_TRUE(stays_busy()) << "a video shown keeps the main loop busy";
    g_daemon.session.event_socket = 0;
    step(refuse, 1);  // while playing without a reverse connection: nothing changes
    airplay_events_attach(&g_daemon.session, pair_.sock);
    step("force?vod=stop", 4, {"stopped"});
    step("", 4);  // a stopped video is still followed
    EXPECT_FALSE(stays_busy());
    // A start position of a few hundredths is not sought (a larger one is, seen elsewhere).
    video_record_change([](video_record& r) { r.start_position = 0.05f; });
    step("force?vod=play&seek=true", 1, {"playing"});
    EXPECT_FLOAT_EQ(video_record_copy().start_position, 0.05f);
    // Refused while playing with a reverse connection: "stopped", and no longer followed.
    step(refuse, 4, {"stopped"});
    size_t asked = queries();
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(queries(), asked);
}

TEST_F(Monitor, AStartRacingAPollEndsStarted) {
    // The player shows a stop throughout, so every poll of a video reported as playing is
    // a change, racing each POST /play. Whatever the order, once the start is accepted the
    // record is Started, and a stop the player still shows keeps it so.
    box_.sim("/sim/force?vod=stop");
    box_.sim("/sim/delay?cmd=get_current_vod_info&ms=20");  // a start lands within most polls
    std::atomic<bool> done{false};
    std::thread polls([&] {
        while (!done) poll();
    });
    const std::string play =
        "POST /play HTTP/1.1\r\nContent-Type: text/parameters\r\nContent-Length: 47\r\n\r\n"
        "Content-Location: http://192.0.2.20:8080/m.mp4\n";
    for (int i = 0; i < 20; ++i) {
        video_record_change([](video_record& r) {
            r.video_status = {1, 1, 0, 0, 0};
            r.video_started = 1;
        });
        std::snprintf(g_daemon.session.session_id, 37, "%036d", i);  // a new session each time
        pair_.send(play);
        net_conn conn;
        conn_open(&conn, pair_.sock, 0);
        ASSERT_EQ(airplay_dispatch(&g_daemon.session, &conn), 200);
        drain();
        EXPECT_EQ(video_record_copy().video_status.last_status, 0) << i;
        size_t asked = queries();
        ASSERT_TRUE(zt::wait_until([&] { return queries() >= asked + 2; }));
        video_record r = video_record_copy();
        EXPECT_EQ(r.video_status.last_status, 0) << i;
        EXPECT_EQ(r.video_started, 1) << i;
    }
    done = true;
    polls.join();
}

}  // namespace
