// A sender against the real daemon: each reply format byte for byte, the session bookkeeping,
// unknown requests, and the events posted on the reverse connection as player_sim changes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "support/airplay_sender.h"

namespace {

using zt::ask;
using zt::Client;
using zt::VideoSender;

const std::string kSessionId = "7A2C9B1E-0F4D-4E5A-8B6C-1D2E3F4A5B6C";
const std::string kNoSession = "00000000-0000-0000-0000-000000000000";
const std::string kFence = "[][][][][][][][][][][][][][][][][][][][][][]";
const std::string kAccessLog = "POST /getProperty?playbackAccessLog HTTP/1.1\r\n\r\n";
const std::string kPlistHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST "
    "1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\r\n<plist version=\"1.0\">\r\n";

// The reply with its Date value replaced by "<date>", so the rest compares byte for byte;
// left as it is unless it reads like "Mon, 02 Jan 2006 15:04:05 UTC".
std::string without_date(const std::string& reply) {
    size_t at = reply.find("\r\nDate: ");
    size_t end = at == std::string::npos ? at : reply.find("\r\n", at + 8);
    tm t{};
    const char* zone =
        end == std::string::npos ? nullptr : strptime(&reply[at + 8], "%a, %d %b %Y %T ", &t);
    if (zone == nullptr || zone >= reply.c_str() + end) return reply;
    return reply.substr(0, at + 8) + "<date>" + reply.substr(end);
}

std::string framed(const std::string& type, const std::string& body,
                   const char* status = "200 OK") {
    return std::string("HTTP/1.1 ") + status + "\r\nDate: <date>\r\n" +
           (type.empty() ? "" : "Content-Type: " + type + "\r\n") +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string server_info(const std::string& id = "") {
    return "GET /server-info HTTP/1.1\r\n" +
           (id.empty() ? "" : "X-Apple-Session-ID: " + id + "\r\n") + "Content-Length: 0\r\n\r\n";
}

class Session : public ::testing::Test {
   protected:
    void SetUp() override { ASSERT_TRUE(box_.start({"--duration", "120"})); }
    // The session id the access log reports, after the request if one is given.
    static std::string logged_guid(const std::string& request = "") {
        if (!request.empty()) VideoSender::request(request);
        return zt::plist_value(zt::body_of(VideoSender::request(kAccessLog)), "cs-guid");
    }
    // The daemon's descriptor of the last connection it accepted.
    int last_accepted() const {
        const std::string line = "airplay_thread new socket ", log = box_.daemon_log();
        size_t at = log.rfind(line);
        return at == std::string::npos ? -1 : std::atoi(log.c_str() + at + line.size());
    }
    void play() {
        ASSERT_TRUE(sender_.new_session());
        ASSERT_EQ(sender_.play_status(zt::kText, "Content-Location: http://192.0.2.20/m\n"), 200);
        ASSERT_TRUE(box_.wait_command("start_vod"));
    }
    // The state of the next event on the reverse connection ("" when none came).
    static std::string next_state(Client& r) {
        return zt::plist_value(zt::body_of(r.recv_message(std::chrono::seconds(10))), "state");
    }
    void force(const std::string& vod) { box_.sim("/sim/force?vod=" + vod); }

    zt::Box box_;
    VideoSender sender_;
};
using Video = Session;

TEST_F(Session, RepliesByteForByte) {
    const std::string plist = "text/x-apple-plist+xml", binary = zt::kBinary;
    const std::string info =
        kPlistHead +
        "<dict>\r\n<key>duration</key> <real>0.000000</real>\r\n<key>loadedTimeRanges</key>\r\n"
        "<array>\r\n<dict>\r\n<key>duration</key> <real>0.000000</real>\r\n<key>start</key> "
        "<real>0.0</real>\r\n</dict>\r\n</array>\r\n<key>playbackBufferEmpty</key> <true/>\r\n"
        "<key>playbackBufferFull</key> <false/>\r\n<key>playbackLikelyToKeepUp</key> <true/>\r\n"
        "<key>position</key> <real>0.000000</real>\r\n<key>rate</key> <real>0</real>\r\n"
        "<key>readyToPlay</key> <true/>\r\n<key>seekableTimeRanges</key>\r\n<array>\r\n<dict>\r\n"
        "<key>duration</key>\r\n<real>0.000000</real>\r\n<key>start</key>\r\n<real>0.0</real>\r\n"
        "</dict>\r\n</array>\r\n</dict>\r\n</plist>\r\n";
    const std::string error_log = "<BINARY PLIST DATA>\r\n" + kPlistHead +
                                  "<dict>\r\n<key>errorCode</key>\r\n<integer>0</integer>\r\n"
                                  "<key>value</key>\r\n</dict>\r\n</plist>\r\n";
    const std::string server =
        kPlistHead +
        "<dict>\r\n<key>deviceid</key>\r\n<string>02:5a:4f:52:00:01</string>\r\n<key>features"
        "</key>\r\n<integer>119</integer>\r\n<key>model</key>\r\n<string>AppleTV2,1</string>\r\n"
        "<key>protovers</key>\r\n<string>1.0</string>\r\n<key>srcvers</key>\r\n<string>120.2"
        "</string>\r\n</dict>\r\n</plist>\r\n";
    const std::string not_implemented = framed("", "", "501 Not Implemented");
    const std::pair<std::string, std::string> cases[] = {
        {server_info(kSessionId), framed(plist, server)},
        {"GET /playback-info HTTP/1.1\r\n\r\n", framed(plist, info)},
        {"GET /scrub HTTP/1.1\r\n\r\n",
         framed("text/parameters", "duration: 0.000000\r\nposition: 0.000000\r\n")},
        {"POST /getProperty?playbackErrorLog HTTP/1.1\r\n\r\n", framed(binary, error_log)},
        {"GET /server-inf\r\n\r\n", not_implemented},  // a prefix of a known request
        {"\x01\xff\x80POST /\xfe\r\n\r\n", not_implemented},
        // The reverse connection; no video was started, so no event comes on it.
        {"POST /reverse HTTP/1.1\r\nUpgrade: PTTH/1.0\r\nConnection: Upgrade\r\n\r\n",
         "HTTP/1.1 101 Switching Protocols\r\nDate: <date>\r\nContent-Length: 0\r\n"
         "Upgrade: PTTH/1.0\r\nConnection: Upgrade\r\n\r\n"},
        {"POST /stop HTTP/1.1\r\n\r\n", framed("", "")},
        // A handler that fails answers 500 and the connection is closed after it.
        {"POST /rate HTTP/1.1\r\nContent-Length: 0\r\n\r\n", framed("", "", "500 Unknown")},
    };
    Client c = Client::connect("127.0.0.1", 7000);
    std::vector<size_t> logged;  // the requests logged after each reply
    for (const auto& [request, reply] : cases) {
        EXPECT_EQ(without_date(ask(c, request)), reply) << request;
        logged.push_back(zt::occurrences(box_.daemon_log(), "AIRPLAY RECEIVED"));
    }
    // The one request that is not logged: senders poll it every second.
    EXPECT_EQ(logged[1], logged[0]);
    EXPECT_EQ(logged[2], logged[1] + 1);
    EXPECT_TRUE(c.closed_by_peer());
    EXPECT_TRUE(box_.wait_log(kFence + "\n" + error_log + kFence + "\n"));

    // The access log: its date is the current UTC time, and the body goes to the log too.
    time_t before = time(nullptr);
    std::string access = VideoSender::request(kAccessLog);
    std::string date = zt::plist_value(zt::body_of(access), "date");
    tm parsed{};
    const char* rest = strptime(date.c_str(), "%Y-%m-%dT%H:%M:%S", &parsed);
    ASSERT_TRUE(rest != nullptr && std::string(rest) == "Z") << date;
    EXPECT_GE(timegm(&parsed), before);
    EXPECT_LE(timegm(&parsed), time(nullptr));
    const std::string access_body =
        "<BINARY PLIST DATA>\r\n" + kPlistHead +
        "<dict>\r\n<key>errorCode</key>\r\n<integer>0</integer>\r\n<key>value</key>\r\n<array>\r\n"
        "<dict>\r\n<key>bytes</key> <integer>0</integer>\r\n<key>c-duration-downloaded</key> "
        "<real>0</real>\r\n<key>c-duration-watched</key> <real>0.000000</real>"
        "\r\n<key>c-frames-dropped</key> <integer>0</integer>\r\n<key>c-observed-bitrate</key> "
        "<real>14598047.302367469</real>\r\n<key>c-overdue</key> <integer>0</integer>\r\n"
        "<key>c-stalls</key> <integer>0</integer>\r\n<key>c-start-time</key> <real>0.0</real>\r\n"
        "<key>c-startup-time</key> <real>0.27732497453689575</real>\r\n<key>cs-guid</key> "
        "<string>" +
        kNoSession + "</string>\r\n<key>date</key> <date>" + date +
        "</date>\r\n<key>s-ip</key> <string>192.168.0.90</string>\r\n<key>s-ip-changes</key> "
        "<integer>0</integer>\r\n<key>sc-count</key> <integer>7</integer>\r\n<key>uri</key> "
        "<string></string>\r\n</dict>\r\n</array>\r\n</dict>\r\n</plist>\r\n";
    EXPECT_EQ(without_date(access), framed(binary, access_body));
    EXPECT_TRUE(box_.wait_log(kFence + "\n" + access_body + kFence + "\n"));
}

TEST_F(Session, SessionIdsAndRepeatedPlays) {
    const std::string play = "POST /play HTTP/1.1\r\nContent-Length: 0\r\n\r\n";
    const std::string repeat = "found second request sets, ommit second one";
    // Before any server-info both ids are empty, hence equal: a repeat, nothing starts.
    EXPECT_EQ(zt::status_code(VideoSender::request(play)), 200);
    const std::string dashes(49, '-');
    EXPECT_TRUE(box_.wait_log(dashes + "\n" + repeat + "\n" + dashes + "\n"));
    EXPECT_EQ(logged_guid(server_info(kSessionId)), kSessionId);
    EXPECT_EQ(logged_guid(server_info()), kSessionId);  // without the header: the session stays
    // POST /stop with nothing shown forgets the session and the played id: a repeat again.
    EXPECT_EQ(VideoSender::post("/stop"), 200);
    EXPECT_EQ(logged_guid(), kNoSession);
    EXPECT_EQ(zt::status_code(VideoSender::request(play)), 200);
    EXPECT_TRUE(zt::wait_until([&] { return zt::occurrences(box_.daemon_log(), repeat) == 2; }));
    EXPECT_TRUE(zt::commands_named(box_, "start_vod").empty());

    // A name at the very end of a full header block takes what is there, perhaps nothing.
    for (auto [tail, guid] :
         {std::pair<std::string, std::string>{"X-Apple-Session-ID: 12345", "12345"},
          {"X-Apple-Session-ID:", kNoSession}}) {
        std::string full = "GET /server-info HTTP/1.1\r\n";
        full += std::string(5119 - full.size() - tail.size(), 'a') + tail;
        EXPECT_EQ(zt::status_code(VideoSender::request(full)), 200) << tail;
        EXPECT_EQ(logged_guid(), guid);
    }
}

TEST_F(Video, EventsFollowThePlayerOnTheReverseConnectionOnly) {
    play();
    force("play");
    ASSERT_TRUE(zt::let_monitor_poll(box_));
    // The current state, at once.
    ASSERT_TRUE(sender_.open_reverse());
    int reverse_fd = last_accepted();
    const std::string body =
        kPlistHead +
        "<dict>\r\n<key>category</key>\r\n<string>video</string>\r\n<key>sessionID</key>\r\n"
        "<integer>1</integer>\r\n<key>state</key>\r\n<string>playing</string>\r\n</dict>\r\n"
        "</plist>\r\n\r\n";
    const std::string head = "POST /event HTTP/1.1\r\nContent-Type: application/x-apple-plist\r\n";
    EXPECT_EQ(sender_.reverse.recv_message(std::chrono::seconds(10)),
              head + "Content-Length: " + std::to_string(body.size()) +
                  "\r\nX-Apple-Session-ID: " + kNoSession + "\r\n\r\n" + body);
    // A sender answers each event; the daemon takes the answer and says nothing.
    ASSERT_TRUE(sender_.reverse.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_TRUE(box_.wait_log("received common HTTP response, zor_airplay does not process it"));
    force("stop");
    EXPECT_EQ(next_state(sender_.reverse), "stopped");

    // Events never reach a connection that got the reverse one's number after it closed.
    sender_.reverse.close();
    ASSERT_TRUE(box_.wait_log("airplay_thread close socket " + std::to_string(reverse_fd) + "\n"));
    // The lowest free descriptor, unless the main loop's player connections hold it a moment.
    Client newcomer;
    std::vector<Client> others;
    const std::string accepted = "airplay_thread new socket ";
    for (int tries = 0; tries < 5 && !newcomer.ok(); ++tries) {
        size_t before = zt::occurrences(box_.daemon_log(), accepted);
        Client c = VideoSender::connect();
        ASSERT_TRUE(
            zt::wait_until([&] { return zt::occurrences(box_.daemon_log(), accepted) > before; }));
        (last_accepted() == reverse_fd ? newcomer : others.emplace_back()) = std::move(c);
    }
    ASSERT_TRUE(newcomer.ok()) << "the descriptor was not reused; the check would prove nothing";
    force("pause");
    zt::let_monitor_poll(box_);
    EXPECT_EQ(newcomer.recv_some(std::chrono::milliseconds(300)), "");
    // Once it asks for events itself, it hears the current state.
    EXPECT_EQ(zt::status_code(ask(newcomer, "POST /reverse HTTP/1.1\r\n\r\n")), 101);
    EXPECT_EQ(next_state(newcomer), "paused");
}

TEST_F(Video, ASenderThatStopsReadingHoldsUpNoPollAndGetsNoHalfEvent) {
    // Small socket buffers, as on a slow network: a sender that stops reading fills them soon.
    for (const char* name : {"/proc/sys/net/ipv4/tcp_wmem", "/proc/sys/net/ipv4/tcp_rmem"})
        ASSERT_TRUE(std::ofstream(name) << "4096 4096 4096") << name;
    ASSERT_TRUE(sender_.open_reverse());
    play();
    size_t first = box_.count("get_current_vod_info");
    // The sender reads nothing from here on, while the player changes state on every poll.
    const std::string dropped = "send_playback_event_xml unable to send out(";
    for (int i = 0; i < 100 && box_.daemon_log().find(dropped) == std::string::npos; ++i) {
        force(i % 2 ? "pause" : "play");
        zt::let_monitor_poll(box_, 1);
    }
    ASSERT_TRUE(box_.wait_log(dropped));
    zt::let_monitor_poll(box_, 2);
    std::vector<zt::PlayerCommand> all = zt::commands_named(box_, "get_current_vod_info");
    for (size_t i = first + 1; i < all.size(); ++i)
        EXPECT_LT(all[i].time_ms - all[i - 1].time_ms, 5000) << "a poll waited on the sender";

    // Whole events one after the other; only the last may be cut, by the end of the
    // connection, which the daemon dropped.
    std::string data = sender_.reverse.recv_all(std::chrono::seconds(3));
    const std::string start = "POST /event HTTP/1.1";
    size_t at = 0, whole = 0;
    for (size_t n; (n = zt::message_length(data.substr(at))) > 0; at += n, ++whole)
        ASSERT_EQ(data.compare(at, start.size(), start), 0) << "event " << whole << " was cut";
    size_t rest = std::min(start.size(), data.size() - at);
    EXPECT_EQ(data.compare(at, rest, start, 0, rest), 0) << "event " << whole << " was cut";
    EXPECT_GT(whole, 0u);
    EXPECT_TRUE(sender_.reverse.closed_by_peer(std::chrono::seconds(1)));
}

}  // namespace
