// A sender playing a video on the real daemon: POST /play, then the events that the video
// monitor posts on the reverse connection as player_sim changes state.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "airplay_test_util.h"
#include "support/box.h"

namespace {

using zt::ask;
using zt::Client;

const std::string kSessionId = "5B1E0C7A-3D2F-4A6B-9C8D-7E6F5A4B3C2D";

class Video : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_TRUE(box_.start({"--duration", "120"}));
        control_ = connect();
        ASSERT_EQ(
            zt::status_code(ask(control_, "GET /server-info HTTP/1.1\r\nX-Apple-Session-ID: " +
                                              kSessionId + "\r\n\r\n")),
            200);
    }

    void TearDown() override { zt::expect_no_sanitizer_report(box_.daemon_log()); }
    static Client connect() { return Client::connect("127.0.0.1", 7000); }

    // The daemon's descriptors of the connections it accepted, in order.
    std::vector<int> accepted() const {
        const std::string line = "airplay_thread new socket ";
        std::string log = box_.daemon_log();
        std::vector<int> fds;
        for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1))
            fds.push_back(std::atoi(log.c_str() + at + line.size()));
        return fds;
    }
    size_t accepted_count() const { return accepted().size(); }
    int last_accepted() const {
        std::vector<int> fds = accepted();
        return fds.empty() ? -1 : fds.back();
    }

    Client open_reverse(int* daemon_fd = nullptr) {
        Client r = connect();
        std::string reply = ask(r,
                                "POST /reverse HTTP/1.1\r\nUpgrade: PTTH/1.0\r\n"
                                "Connection: Upgrade\r\nX-Apple-Purpose: event\r\n\r\n");
        EXPECT_EQ(zt::status_code(reply), 101);
        if (daemon_fd) *daemon_fd = last_accepted();
        return r;
    }

    void play() {
        const std::string body =
            "Content-Location: http://192.0.2.20:7001/movie.mp4\nStart-Position: 0.0\n";
        std::string reply = ask(control_,
                                "POST /play HTTP/1.1\r\nContent-Type: text/parameters\r\n"
                                "Content-Length: " +
                                    std::to_string(body.size()) +
                                    "\r\nX-Apple-Session-ID: " + kSessionId + "\r\n\r\n" + body);
        ASSERT_EQ(zt::status_code(reply), 200) << reply;
        ASSERT_TRUE(box_.wait_command("start_vod"));
    }

    // The next event on the reverse connection (its whole text); "" when none came.
    static std::string next_event(Client& r) { return r.recv_message(std::chrono::seconds(10)); }
    static std::string state_of(const std::string& event) {
        return zt::plist_value(zt::body_of(event), "state");
    }

    size_t count(const std::string& name) const {
        size_t n = 0;
        for (const auto& c : box_.commands()) n += c.name == name;
        return n;
    }
    // Waits until the monitor has asked the player `polls` more times: by then it has
    // seen whatever player_sim was told before this call.
    void let_monitor_poll(size_t polls = 3) {
        ASSERT_TRUE(
            box_.wait_command("get_current_vod_info", count("get_current_vod_info") + polls));
    }

    void force(const std::string& vod) { box_.sim("/sim/force?vod=" + vod); }

    zt::Box box_;
    Client control_;
};

TEST_F(Video, EventsFollowThePlayerInOrder) {
    Client reverse = open_reverse();
    play();
    force("buffering");
    std::string event = next_event(reverse);
    const std::string body =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n" + zt::kDoctype +
        "\r\n<plist version=\"1.0\">\r\n<dict>\r\n<key>category</key>\r\n<string>video</string>\r\n"
        "<key>sessionID</key>\r\n<integer>1</integer>\r\n<key>state</key>\r\n"
        "<string>loading</string>\r\n</dict>\r\n</plist>\r\n\r\n";
    EXPECT_EQ(event,
              "POST /event HTTP/1.1\r\nContent-Type: application/x-apple-plist\r\n"
              "Content-Length: " +
                  std::to_string(body.size()) +
                  "\r\nX-Apple-Session-ID: 00000000-0000-0000-0000-000000000000\r\n\r\n" + body);
    // A sender answers each event; the daemon takes the answer and says nothing.
    ASSERT_TRUE(reverse.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));

    force("play");
    EXPECT_EQ(state_of(next_event(reverse)), "playing");
    std::string info = zt::body_of(ask(control_, "GET /playback-info HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(zt::plist_value(info, "rate"), "1");
    EXPECT_EQ(zt::plist_value(info, "duration"), "120.000000");
    force("pause");
    EXPECT_EQ(state_of(next_event(reverse)), "paused");
    force("stop");
    EXPECT_EQ(state_of(next_event(reverse)), "stopped");
    // Nothing more while the player stays stopped.
    let_monitor_poll();
    EXPECT_EQ(reverse.recv_some(std::chrono::milliseconds(200)), "");
}

TEST_F(Video, ASenderThatStopsReadingHoldsUpNoPollAndGetsNoHalfEvent) {
    ASSERT_TRUE(zt::use_small_socket_buffers());
    Client reverse = open_reverse();
    play();
    size_t first = count("get_current_vod_info");
    // The sender reads nothing from here on, while the player changes state on every poll.
    const std::string dropped = "send_playback_event_xml unable to send out(";
    for (int i = 0; i < 100 && box_.daemon_log().find(dropped) == std::string::npos; ++i) {
        force(i % 2 ? "pause" : "play");
        let_monitor_poll(1);
    }
    ASSERT_TRUE(box_.wait_log(dropped));
    let_monitor_poll(2);
    std::vector<long long> times;
    for (const auto& c : box_.commands())
        if (c.name == "get_current_vod_info") times.push_back(c.time_ms);
    for (size_t i = first + 1; i < times.size(); ++i)
        EXPECT_LT(times[i] - times[i - 1], 5000) << "poll " << i << " waited on the sender";

    // Whole events one after the other; only the last may be cut, by the end of the
    // connection, which the daemon dropped.
    std::string data = reverse.recv_all(std::chrono::seconds(3));
    const std::string start = "POST /event HTTP/1.1";
    size_t at = 0, whole = 0;
    while (at < data.size()) {
        size_t n = std::min(start.size(), data.size() - at);
        ASSERT_EQ(data.compare(at, n, start, 0, n), 0) << "event " << whole << " was cut";
        size_t end = data.find("\r\n\r\n", at);
        if (end == std::string::npos) break;
        size_t length =
            std::stoul(zt::header_value(data.substr(at, end + 4 - at), "Content-Length"));
        if (end + 4 + length > data.size()) break;
        at = end + 4 + length;
        ++whole;
    }
    EXPECT_GT(whole, 0u);
    EXPECT_TRUE(reverse.closed_by_peer(std::chrono::seconds(1)));
}

TEST_F(Video, NothingBeforeTheReverseConnectionThenTheCurrentState) {
    play();
    force("buffering");
    let_monitor_poll();
    force("play");
    let_monitor_poll();
    EXPECT_EQ(control_.recv_some(std::chrono::milliseconds(200)), "");

    Client reverse = open_reverse();
    std::string event = next_event(reverse);
    EXPECT_EQ(state_of(event), "playing") << event;
    let_monitor_poll();
    EXPECT_EQ(reverse.recv_some(std::chrono::milliseconds(200)), "");
}

TEST_F(Video, EventsNeverReachAConnectionThatReusedTheReverseOnesNumber) {
    int reverse_fd = -1;
    Client reverse = open_reverse(&reverse_fd);
    play();
    force("play");
    EXPECT_EQ(state_of(next_event(reverse)), "playing");

    reverse.close();
    ASSERT_TRUE(box_.wait_log("airplay_thread close socket " + std::to_string(reverse_fd) + "\n"));
    // A new connection gets the lowest free descriptor, normally the old reverse
    // connection's; the main loop's own player connections may take it for a moment.
    Client newcomer;
    std::vector<Client> others;
    for (int tries = 0; tries < 5 && !newcomer.ok(); ++tries) {
        size_t before = accepted_count();
        Client c = connect();
        ASSERT_TRUE(zt::wait_until([&] { return accepted_count() > before; }));
        if (last_accepted() == reverse_fd)
            newcomer = std::move(c);
        else
            others.push_back(std::move(c));
    }
    ASSERT_TRUE(newcomer.ok()) << "the descriptor was not reused; the check would prove nothing";

    force("pause");
    let_monitor_poll();
    EXPECT_EQ(newcomer.recv_some(std::chrono::milliseconds(300)), "");

    // Once it asks for events itself, it hears the current state.
    EXPECT_EQ(zt::status_code(ask(newcomer, "POST /reverse HTTP/1.1\r\n\r\n")), 101);
    EXPECT_EQ(state_of(next_event(newcomer)), "paused");
}

TEST_F(Video, PlayOncePerSession) {
    // Stop, which ends a session, is followed through the player elsewhere.
    play();
    const std::string again = "POST /play HTTP/1.1\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(zt::status_code(ask(control_, again)), 200);
    EXPECT_TRUE(box_.wait_log("found second request sets, ommit second one"));
    EXPECT_EQ(count("start_vod"), 1u);
}

TEST_F(Video, ThePollStaysQuickWhilePlayingAndSlowsWhenStopped) {
    play();
    force("play");
    // Well past the 50 passes after which an idle loop would slow down.
    ASSERT_TRUE(box_.wait_command("get_current_vod_info", 60, std::chrono::seconds(60)));
    std::vector<long long> gaps;
    auto gaps_since = [&](size_t first) {
        std::vector<long long> times;
        for (const auto& c : box_.commands())
            if (c.name == "get_current_vod_info") times.push_back(c.time_ms);
        std::vector<long long> out;
        for (size_t i = std::max<size_t>(first, 1); i < times.size(); ++i)
            out.push_back(times[i] - times[i - 1]);
        return out;
    };
    gaps = gaps_since(50);
    ASSERT_GE(gaps.size(), 5u);
    std::sort(gaps.begin(), gaps.end());
    EXPECT_LT(gaps[gaps.size() / 2], 1000) << "the video bit should keep the loop busy";

    force("stop");
    size_t stopped_at = count("get_current_vod_info");
    // Without traffic the loop returns to the idle interval (which it sleeps whole).
    EXPECT_TRUE(zt::wait_until(
        [&] {
            auto later = gaps_since(stopped_at + 1);
            return std::any_of(later.begin(), later.end(), [](long long g) { return g >= 1900; });
        },
        std::chrono::seconds(40)));
}

}  // namespace
