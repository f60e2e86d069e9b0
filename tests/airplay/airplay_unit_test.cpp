// In-process checks of the AirPlay unit's parsers and builders: the player's status reply,
// the event request, and the replies whose values come from the video state.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <string>

#include "airplay/airplay.h"
#include "airplay/video/airplay_video.h"
#include "airplay_test_util.h"
#include "main/daemon.h"

namespace {

struct Parsed {
    int status, seek, duration, position;
};

Parsed parse(const std::string& text, int preset = 7) {
    video_status_record vs{};
    vs.status = preset;
    vs.duration = preset;
    vs.position = preset;
    vs.seek_enabled = preset;
    airplay_video_parse_info(text.c_str(), &vs);
    return {vs.status, vs.seek_enabled, vs.duration, vs.position};
}

TEST(VideoParseInfo, StatusTagsInTheirOrder) {
    EXPECT_EQ(parse("<currentStatus>pause<x><currentStatus>play<").status, 1);
    EXPECT_EQ(parse("<currentStatus>pause</currentStatus>").status, 3);
    EXPECT_EQ(parse("<currentStatus>stop</currentStatus>").status, 4);
    EXPECT_EQ(parse("<currentStatus>buffering</currentStatus>").status, 2);
    EXPECT_EQ(parse("<currentStatus>playing</currentStatus>").status, 4);  // not a known tag
    EXPECT_EQ(parse("").status, 4);
    EXPECT_EQ(parse("<seekEnable>true</seekEnable>").seek, 1);
    EXPECT_EQ(parse("<seekEnable>false</seekEnable>").seek, 0);
}

TEST(VideoParseInfo, TimesUpToTheNextTag) {
    Parsed p = parse("<totalTime>90</totalTime><currentTime> 30.7</currentTime>");
    EXPECT_EQ(p.duration, 90);
    EXPECT_EQ(p.position, 30);
    EXPECT_EQ(parse("<currentTime>-12abc</currentTime>").position, -12);
    EXPECT_EQ(parse("<currentTime>x</currentTime>").position, 0);
    // Missing tag: 0; tag without a following "<": the old value stays.
    EXPECT_EQ(parse("<currentTime>5<").duration, 0);
    EXPECT_EQ(parse("<totalTime>90").duration, 7);
    // Values beyond the int range are clamped, never undefined.
    EXPECT_EQ(parse("<totalTime>99999999999999<").duration, INT_MAX);
}

TEST(VideoParseInfo, LongNumbersAreCutTo31Characters) {
    EXPECT_EQ(parse("<totalTime>" + std::string(30, ' ') + "5<").duration, 5);
    EXPECT_EQ(parse("<totalTime>" + std::string(31, ' ') + "5<").duration, 0);
    EXPECT_EQ(parse("<totalTime>" + std::string(4000, '1') + "<").duration, INT_MAX);
    video_status_record vs{};
    vs.duration = 3;
    airplay_video_parse_info(nullptr, &vs);
    EXPECT_EQ(vs.duration, 3);
}

// Reads what one side of a socket pair has received so far.
std::string drain(int fd) {
    std::string out;
    char buf[8192];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0) out.append(buf, n);
    return out;
}

class PairTest : public ::testing::Test {
   protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
        daemon_init_session(&g_daemon.session);
    }
    void TearDown() override {
        close(fds_[0]);
        close(fds_[1]);
    }
    int fds_[2] = {-1, -1};
};

using PlaybackEvent = PairTest;

TEST_F(PlaybackEvent, CategoryFollowsWhatIsShownAndNeedsAReverseConnection) {
    // The exact bytes are checked against the daemon; here the choice of category.
    g_daemon.session.activity_mask = kActivityVideo;
    EXPECT_EQ(send_playback_event_xml(&g_daemon.session, "playing"), -1);  // none yet
    airplay_events_attach(&g_daemon.session, fds_[0]);
    int written = send_playback_event_xml(&g_daemon.session, "playing");
    std::string event = drain(fds_[1]);
    EXPECT_EQ(written, static_cast<int>(event.size()));
    EXPECT_EQ(zt::header_value(event, "Content-Length"), std::to_string(zt::body_of(event).size()));
    EXPECT_EQ(zt::plist_value(zt::body_of(event), "category"), "video");

    g_daemon.session.activity_mask = kActivityVideo | kActivityPhoto;
    send_playback_event_xml(&g_daemon.session, "paused");
    EXPECT_EQ(zt::plist_value(zt::body_of(drain(fds_[1])), "category"), "photo");

    g_daemon.session.activity_mask = 0;
    testing::internal::CaptureStdout();
    send_playback_event_xml(&g_daemon.session, "stopped");
    fflush(stdout);
    std::string log = testing::internal::GetCapturedStdout();
    std::string body = zt::body_of(drain(fds_[1]));
    EXPECT_EQ(zt::plist_value(body, "category"), "video");
    EXPECT_EQ(zt::plist_value(body, "state"), "stopped");
    EXPECT_NE(log.find("WARNING : no current media type, force video\n"), std::string::npos);

    // The sender has gone: the connection is dropped and forgotten, with one line naming it.
    close(fds_[1]);
    fds_[1] = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(send_playback_event_xml(&g_daemon.session, "paused"), -1);
    log = testing::internal::GetCapturedStdout();
    EXPECT_NE(
        log.find("send_playback_event_xml unable to send out(" + std::to_string(fds_[0]) + ")"),
        std::string::npos)
        << log;
    EXPECT_EQ(g_daemon.session.event_socket, 0);
}

using DispatchValues = PairTest;

std::string dispatch(int fds[2], const std::string& request) {
    send(fds[1], request.data(), request.size(), 0);
    net_conn conn;
    conn_open(&conn, fds[0], 0);
    int status = airplay_dispatch(&g_daemon.session, &conn);
    std::string reply = drain(fds[1]);
    return status == 200 ? reply : "status " + std::to_string(status) + "\n" + reply;
}

TEST_F(DispatchValues, PlaybackInfoScrubAndAccessLogFollowTheVideo) {
    auto set = [](int status, int position, int duration) {
        video_record_change([=](video_record& r) {
            r.video_status.status = status;
            r.video_status.position = position;
            r.video_status.duration = duration;
        });
    };
    set(1, 30, 120);
    std::string info = zt::body_of(dispatch(fds_, "GET /playback-info HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(zt::plist_value(info, "duration"), "120.000000");
    EXPECT_EQ(zt::plist_value(info, "position"), "30.000000");
    EXPECT_EQ(zt::plist_value(info, "rate"), "1");
    EXPECT_NE(info.find("<key>duration</key>\r\n<real>120.000000</real>"), std::string::npos);
    EXPECT_NE(info.find("<key>loadedTimeRanges</key>\r\n<array>\r\n<dict>\r\n"
                        "<key>duration</key> <real>120.000000</real>"),
              std::string::npos);

    EXPECT_EQ(zt::body_of(dispatch(fds_, "GET /scrub HTTP/1.1\r\n\r\n")),
              "duration: 120.000000\r\nposition: 30.000000\r\n");

    std::string log =
        zt::body_of(dispatch(fds_, "POST /getProperty?playbackAccessLog HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(zt::plist_value(log, "bytes"), "15360");
    EXPECT_EQ(zt::plist_value(log, "c-duration-downloaded"), "35");
    EXPECT_EQ(zt::plist_value(log, "c-duration-watched"), "30.000000");

    set(3, 118, 120);
    info = zt::body_of(dispatch(fds_, "GET /playback-info HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(zt::plist_value(info, "rate"), "0");
    log = zt::body_of(dispatch(fds_, "POST /getProperty?playbackAccessLog HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(zt::plist_value(log, "c-duration-downloaded"), "120");

    // Player numbers at the edge of the int range do not overflow the arithmetic.
    set(3, INT_MAX, INT_MAX);
    log = zt::body_of(dispatch(fds_, "POST /getProperty?playbackAccessLog HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(zt::plist_value(log, "c-duration-downloaded"), std::to_string(INT_MAX));
    set(4, 0, 0);
}

}  // namespace
