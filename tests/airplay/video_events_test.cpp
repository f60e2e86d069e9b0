// A sender playing a video on the real daemon: POST /play, then the events that the video
// monitor posts on the reverse connection as player_sim changes state.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "airplay_test_util.h"

namespace {

using zt::Client;

class Video : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_TRUE(box_.start({"--duration", "120"}));
        ASSERT_TRUE(sender_.new_session());
    }
    void TearDown() override { zt::expect_no_sanitizer_report(box_.daemon_log()); }

    // The daemon's descriptors of the connections it accepted, in order.
    std::vector<int> accepted() const {
        const std::string line = "airplay_thread new socket ";
        std::string log = box_.daemon_log();
        std::vector<int> fds;
        for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1))
            fds.push_back(std::atoi(log.c_str() + at + line.size()));
        return fds;
    }
    void play() {
        const std::string body = "Content-Location: http://192.0.2.20:7001/movie.mp4\n";
        ASSERT_EQ(sender_.play_status(zt::kText, body), 200);
        ASSERT_TRUE(box_.wait_command("start_vod"));
    }
    // The state of the next event on the reverse connection ("" when none came).
    static std::string next_state(Client& r) {
        return zt::plist_value(zt::body_of(r.recv_message(std::chrono::seconds(10))), "state");
    }
    // The gaps between the monitor's queries from the first-th on.
    std::vector<long long> poll_gaps(size_t first) const {
        std::vector<long long> gaps;
        auto polls = zt::commands_named(box_, "get_current_vod_info");
        for (size_t i = std::max<size_t>(first, 1); i < polls.size(); ++i)
            gaps.push_back(polls[i].time_ms - polls[i - 1].time_ms);
        return gaps;
    }
    void force(const std::string& vod) { box_.sim("/sim/force?vod=" + vod); }

    zt::Box box_;
    zt::VideoSender sender_;
};

TEST_F(Video, EventsFollowThePlayerFromTheReverseConnectionOn) {
    Client control = zt::VideoSender::connect();
    ASSERT_EQ(zt::status_code(zt::ask(control, "GET /server-info HTTP/1.1\r\n\r\n")), 200);
    play();
    // One start per session.
    EXPECT_EQ(zt::VideoSender::post("/play"), 200);
    EXPECT_TRUE(box_.wait_log("found second request sets, ommit second one"));
    EXPECT_EQ(zt::commands_named(box_, "start_vod").size(), 1u);
    // Nothing before the reverse connection, on any connection.
    force("buffering");
    ASSERT_TRUE(zt::let_monitor_poll(box_));
    force("play");
    ASSERT_TRUE(zt::let_monitor_poll(box_));
    EXPECT_EQ(control.recv_some(std::chrono::milliseconds(200)), "");

    // Then the current state, at once.
    ASSERT_TRUE(sender_.open_reverse());
    const std::string body =
        zt::kPlistHead +
        "<dict>\r\n<key>category</key>\r\n<string>video</string>\r\n<key>sessionID</key>\r\n"
        "<integer>1</integer>\r\n<key>state</key>\r\n<string>playing</string>\r\n</dict>\r\n"
        "</plist>\r\n\r\n";
    EXPECT_EQ(
        sender_.reverse.recv_message(std::chrono::seconds(10)),
        "POST /event HTTP/1.1\r\nContent-Type: application/x-apple-plist\r\nContent-Length: " +
            std::to_string(body.size()) +
            "\r\nX-Apple-Session-ID: 00000000-0000-0000-0000-000000000000\r\n\r\n" + body);
    // A sender answers each event; the daemon takes the answer and says nothing.
    ASSERT_TRUE(sender_.reverse.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    std::string info = zt::body_of(zt::VideoSender::request("GET /playback-info HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(zt::plist_value(info, "rate"), "1");
    EXPECT_EQ(zt::plist_value(info, "duration"), "120.000000");

    // The poll stays quick while a video is shown, well past the 50 passes after which an
    // idle loop slows down.
    ASSERT_TRUE(box_.wait_command("get_current_vod_info", 60, std::chrono::seconds(60)));
    std::vector<long long> gaps = poll_gaps(50);
    std::sort(gaps.begin(), gaps.end());
    EXPECT_LT(gaps[gaps.size() / 2], 1000) << "the video bit should keep the loop busy";

    force("pause");
    EXPECT_EQ(next_state(sender_.reverse), "paused");
    force("stop");
    EXPECT_EQ(next_state(sender_.reverse), "stopped");
    size_t stopped_at = zt::commands_named(box_, "get_current_vod_info").size();
    // Nothing more while the player stays stopped, and the loop returns to its idle
    // interval (which it sleeps whole).
    EXPECT_TRUE(zt::wait_until(
        [&] {
            auto later = poll_gaps(stopped_at + 1);
            return std::any_of(later.begin(), later.end(), [](long long g) { return g >= 1900; });
        },
        std::chrono::seconds(40)));
    EXPECT_EQ(sender_.reverse.recv_some(std::chrono::milliseconds(200)), "");
}

TEST_F(Video, ASenderThatStopsReadingHoldsUpNoPollAndGetsNoHalfEvent) {
    ASSERT_TRUE(zt::use_small_socket_buffers());
    ASSERT_TRUE(sender_.open_reverse());
    play();
    size_t first = zt::commands_named(box_, "get_current_vod_info").size();
    // The sender reads nothing from here on, while the player changes state on every poll.
    const std::string dropped = "send_playback_event_xml unable to send out(";
    for (int i = 0; i < 100 && box_.daemon_log().find(dropped) == std::string::npos; ++i) {
        force(i % 2 ? "pause" : "play");
        zt::let_monitor_poll(box_, 1);
    }
    ASSERT_TRUE(box_.wait_log(dropped));
    zt::let_monitor_poll(box_, 2);
    for (long long gap : poll_gaps(first + 1))
        EXPECT_LT(gap, 5000) << "a poll waited on the sender";

    // Whole events one after the other; only the last may be cut, by the end of the
    // connection, which the daemon dropped.
    std::string data = sender_.reverse.recv_all(std::chrono::seconds(3));
    const std::string start = "POST /event HTTP/1.1";
    size_t at = 0, whole = 0;
    while (at < data.size()) {
        size_t n = std::min(start.size(), data.size() - at);
        ASSERT_EQ(data.compare(at, n, start, 0, n), 0) << "event " << whole << " was cut";
        size_t end = data.find("\r\n\r\n", at);
        if (end == std::string::npos) break;
        at =
            end + 4 + std::stoul(zt::header_value(data.substr(at, end + 4 - at), "Content-Length"));
        whole += at <= data.size();
    }
    EXPECT_GT(whole, 0u);
    EXPECT_TRUE(sender_.reverse.closed_by_peer(std::chrono::seconds(1)));
}

TEST_F(Video, EventsNeverReachAConnectionThatReusedTheReverseOnesNumber) {
    ASSERT_TRUE(sender_.open_reverse());
    int reverse_fd = accepted().back();
    play();
    force("play");
    EXPECT_EQ(next_state(sender_.reverse), "playing");

    sender_.reverse.close();
    ASSERT_TRUE(box_.wait_log("airplay_thread close socket " + std::to_string(reverse_fd) + "\n"));
    // A new connection gets the lowest free descriptor, normally the old reverse
    // connection's; the main loop's own player connections may take it for a moment.
    Client newcomer;
    std::vector<Client> others;
    for (int tries = 0; tries < 5 && !newcomer.ok(); ++tries) {
        size_t before = accepted().size();
        Client c = zt::VideoSender::connect();
        ASSERT_TRUE(zt::wait_until([&] { return accepted().size() > before; }));
        (accepted().back() == reverse_fd ? newcomer : others.emplace_back()) = std::move(c);
    }
    ASSERT_TRUE(newcomer.ok()) << "the descriptor was not reused; the check would prove nothing";
    force("pause");
    zt::let_monitor_poll(box_);
    EXPECT_EQ(newcomer.recv_some(std::chrono::milliseconds(300)), "");
    // Once it asks for events itself, it hears the current state.
    EXPECT_EQ(zt::status_code(zt::ask(newcomer, "POST /reverse HTTP/1.1\r\n\r\n")), 101);
    EXPECT_EQ(next_state(newcomer), "paused");
}

}  // namespace
