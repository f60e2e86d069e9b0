// The video monitor's state machine, run in-process one poll at a time against player_sim,
// with one end of a socket pair as the sender's reverse connection.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "airplay/video/airplay_video.h"
#include "airplay_test_util.h"
#include "main/daemon.h"
#include "support/box.h"

namespace {

class Monitor : public ::testing::Test {
   protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(box_.start_player());
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
        daemon_init_session(&g_daemon.session);
        video_record_change([](video_record& r) { r = video_record{}; });
    }
    void TearDown() override {
        g_daemon.session.event_socket = 0;
        close(fds_[0]);
        close(fds_[1]);
    }

    // What a successful POST /play leaves behind.
    void started() {
        video_record_change([](video_record& r) {
            r.video_status.status = 0;
            r.video_status.last_status = 0;
            r.video_started = 1;
            ++r.starts;
        });
        airplay_events_attach(&g_daemon.session, fds_[0]);
    }
    static video_record record() { return video_record_copy(); }
    static void set_start_position(float p) {
        video_record_change([p](video_record& r) { r.start_position = p; });
    }

    // One pass of the main loop as far as video goes: the poll, then the video bit.
    int poll() {
        int status = airplay_video_monitor(&g_daemon.session);
        if (status != 4)
            g_daemon.session.activity_mask.fetch_or(kActivityVideo);
        else
            g_daemon.session.activity_mask.fetch_and(~kActivityVideo);
        return status;
    }

    // The states of the events the sender has received since the last call.
    std::vector<std::string> events() {
        std::string data;
        char buf[8192];
        ssize_t n;
        while ((n = recv(fds_[1], buf, sizeof(buf), MSG_DONTWAIT)) > 0) data.append(buf, n);
        std::vector<std::string> out;
        for (size_t at = data.find("POST /event"); at != std::string::npos;
             at = data.find("POST /event", at + 1)) {
            out.push_back(zt::plist_value(data.substr(at), "state"));
        }
        return out;
    }

    size_t queries() const {
        size_t n = 0;
        for (const auto& c : box_.commands()) n += c.name == "get_current_vod_info";
        return n;
    }

    void force(const std::string& vod) { box_.sim("/sim/force?vod=" + vod); }
    void refuse_next_query() { box_.sim("/sim/refuse?cmd=get_current_vod_info&count=1"); }

    using Events = std::vector<std::string>;
    zt::Box box_;
    int fds_[2] = {-1, -1};
};

TEST_F(Monitor, NoVideoNoQuery) {
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(queries(), 0u);
    EXPECT_EQ(events(), Events{});
}

TEST_F(Monitor, TheStatesAfterAStart) {
    // The order of events is checked against the daemon; here the states around a stop.
    // The stop the player still shows right after the start is no event.
    started();
    force("stop");
    size_t asked = queries();
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(g_daemon.session.activity_mask & kActivityVideo, 0u);
    EXPECT_EQ(record().video_status.last_status, 0);
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(queries(), asked + 2);
    EXPECT_EQ(events(), Events{});
    force("pause");
    EXPECT_EQ(poll(), 3);
    EXPECT_EQ(poll(), 3);  // no change, no event
    // A silent player leaves the state alone.
    box_.sim("/sim/close?cmd=get_current_vod_info&count=1");
    EXPECT_EQ(poll(), 3);
    // A stopped video is still followed.
    force("stop");
    EXPECT_EQ(poll(), 4);
    asked = queries();
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(queries(), asked + 1);
    force("play");
    EXPECT_EQ(poll(), 1);
    EXPECT_EQ(events(), (Events{"paused", "stopped", "playing"}));
}

TEST_F(Monitor, RefusedQueries) {
    // Before the player has reported anything, a refusal changes nothing.
    started();
    refuse_next_query();
    EXPECT_EQ(poll(), 0);
    EXPECT_EQ(record().video_started, 1);

    // While buffering: back to stopped without telling the sender, and still followed.
    force("buffering");
    EXPECT_EQ(poll(), 2);
    refuse_next_query();
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(record().video_status.last_status, 4);
    EXPECT_EQ(record().video_started, 1);
    EXPECT_EQ(events(), Events{"loading"});

    // While playing without a reverse connection: nothing changes.
    force("play");
    EXPECT_EQ(poll(), 1);
    g_daemon.session.event_socket = 0;
    refuse_next_query();
    EXPECT_EQ(poll(), 1);
    EXPECT_EQ(record().video_started, 1);

    // While playing with one: "stopped", and the video is no longer followed.
    airplay_events_attach(&g_daemon.session, fds_[0]);
    refuse_next_query();
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(record().video_started, 0);
    EXPECT_EQ(events(), (Events{"playing", "stopped"}));
    size_t asked = queries();
    EXPECT_EQ(poll(), 4);
    EXPECT_EQ(queries(), asked);
}

TEST_F(Monitor, AStartPositionOfAFewHundredthsIsNotSought) {
    // The seek to a larger one is followed against the daemon.
    started();
    set_start_position(0.05f);
    box_.sim("/sim/force?vod=play&seek=true");
    EXPECT_EQ(poll(), 1);
    EXPECT_FLOAT_EQ(record().start_position, 0.05f);
}

TEST_F(Monitor, AStartRacingAPollEndsStarted) {
    // The player shows a stop throughout, so every poll of a video reported as playing is
    // a change, racing each POST /play. Whatever the order, once the start is accepted the
    // record is Started, and a stop the player still shows keeps it so.
    force("stop");
    std::atomic<bool> done{false};
    std::thread polls([&] {
        while (!done) poll();
    });
    const std::string body = "Content-Location: http://192.0.2.20:8080/m.mp4\n";
    const std::string head =
        "POST /play HTTP/1.1\r\nContent-Type: text/parameters\r\n"
        "Content-Length: " +
        std::to_string(body.size()) + "\r\n\r\n";
    for (int i = 0; i < 20; ++i) {
        video_record_change([](video_record& r) {
            r.video_status = {1, 1, 0, 0, 0};
            r.video_started = 1;
        });
        auto x = std::make_unique<net_exchange>();
        std::memcpy(x->request.head, head.data(), head.size());
        std::memcpy(x->request.body, body.data(), body.size());
        x->request.header_len = static_cast<int>(head.size());
        x->request.content_length = static_cast<int>(body.size());
        net_conn conn;
        conn_open(&conn, fds_[0], 0);  // the body came whole with the head: never read
        ASSERT_EQ(airplay_video_start(&conn, static_cast<int>(head.size() + body.size()), x.get()),
                  0);
        EXPECT_EQ(record().video_status.last_status, 0) << i;
        size_t asked = queries();
        ASSERT_TRUE(zt::wait_until([&] { return queries() >= asked + 2; }));
        video_record r = record();
        EXPECT_EQ(r.video_status.last_status, 0) << i;
        EXPECT_EQ(r.video_started, 1) << i;
        events();
    }
    done = true;
    polls.join();
}

}  // namespace
