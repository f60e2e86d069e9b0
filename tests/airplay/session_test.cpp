// A sender's session against the real daemon: the fixed replies byte for byte, the session
// bookkeeping, the reverse connection, and requests the daemon does not know.
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "airplay_test_util.h"
#include "support/box.h"

namespace {

using zt::ask;
using zt::Client;
using zt::without_date;

const std::string kMac = "02:5a:4f:52:00:01";  // eth0 of the sandbox
const std::string kSessionId = "7A2C9B1E-0F4D-4E5A-8B6C-1D2E3F4A5B6C";
const std::string kNoSession = "00000000-0000-0000-0000-000000000000";
const std::string kPlistHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n" + zt::kDoctype +
                               "\r\n<plist version=\"1.0\">\r\n";
const std::string kFence = "[][][][][][][][][][][][][][][][][][][][][][]";

std::string framed(const std::string& head, const std::string& body) {
    return "HTTP/1.1 200 OK\r\nDate: <date>\r\n" + head +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string server_info(const std::string& session_header = "") {
    return "GET /server-info HTTP/1.1\r\n" + session_header +
           "User-Agent: AirPlay/320.20\r\nContent-Length: 0\r\n\r\n";
}

const char kAccessLog[] =
    "POST /getProperty?playbackAccessLog HTTP/1.1\r\nContent-Length: 0\r\n\r\n";

class Session : public ::testing::Test {
   protected:
    void SetUp() override { ASSERT_TRUE(box_.start()); }
    void TearDown() override { zt::expect_no_sanitizer_report(box_.daemon_log()); }
    static Client connect() { return Client::connect("127.0.0.1", 7000); }
    // The session id as the access log reports it.
    std::string logged_guid() {
        Client c = connect();
        return zt::plist_value(zt::body_of(ask(c, kAccessLog)), "cs-guid");
    }
    size_t log_count(const std::string& text) const {
        std::string log = box_.daemon_log();
        size_t n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
        return n;
    }
    zt::Box box_;
};

TEST_F(Session, ServerInfoDescribesTheBoxAndTakesTheSessionId) {
    Client c = connect();
    std::string reply = ask(c, server_info("X-Apple-Session-ID: " + kSessionId + "\r\n"));
    const std::string body = kPlistHead + "<dict>\r\n<key>deviceid</key>\r\n<string>" + kMac +
                             "</string>\r\n<key>features</key>\r\n<integer>119</integer>\r\n"
                             "<key>model</key>\r\n<string>AppleTV2,1</string>\r\n"
                             "<key>protovers</key>\r\n<string>1.0</string>\r\n"
                             "<key>srcvers</key>\r\n<string>120.2</string>\r\n"
                             "</dict>\r\n</plist>\r\n";
    EXPECT_EQ(without_date(reply), framed("Content-Type: text/x-apple-plist+xml", body));
    EXPECT_TRUE(zt::date_is_well_formed(reply)) << reply;
    EXPECT_EQ(logged_guid(), kSessionId);

    // A request without the header leaves the session as it was.
    Client other = connect();
    EXPECT_EQ(zt::body_of(ask(other, server_info())), body);
    EXPECT_EQ(logged_guid(), kSessionId);
}

TEST_F(Session, SessionIdIsAlwaysThe36CharactersAfterTheName) {
    // No blank after the colon: the first character of the id is skipped, and a short id
    // runs on into the next header line.
    std::string request = server_info("X-Apple-Session-ID:ABCDEF\r\n");
    Client c = connect();
    ask(c, request);
    std::string expected = request.substr(request.find("X-Apple-Session-ID:") + 20, 36);
    EXPECT_EQ(logged_guid(), expected);

    // A name at the very end of a full header block takes what is there and no more, which
    // may be nothing at all.
    for (auto [tail, guid] :
         {std::pair<std::string, std::string>{"X-Apple-Session-ID: 12345", "12345"},
          {"X-Apple-Session-ID:", kNoSession}}) {
        std::string full = "GET /server-info HTTP/1.1\r\n";
        full += std::string(5119 - full.size() - tail.size(), 'a') + tail;
        Client edge = connect();
        EXPECT_EQ(zt::status_code(ask(edge, full)), 200) << tail;
        EXPECT_EQ(logged_guid(), guid);
    }
}

TEST_F(Session, ReverseConnectionUpgradesAndIgnoresTheSendersReplies) {
    Client reverse = connect();
    std::string reply = ask(reverse,
                            "POST /reverse HTTP/1.1\r\nUpgrade: PTTH/1.0\r\n"
                            "Connection: Upgrade\r\nX-Apple-Purpose: event\r\n"
                            "Content-Length: 0\r\n\r\n");
    EXPECT_EQ(without_date(reply),
              "HTTP/1.1 101 Switching Protocols\r\nDate: <date>\r\nContent-Length: 0\r\n"
              "Upgrade: PTTH/1.0\r\nConnection: Upgrade\r\n\r\n");
    EXPECT_TRUE(zt::date_is_well_formed(reply));

    // The sender's answer to an event is dropped without a reply; the connection stays.
    ASSERT_TRUE(reverse.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_TRUE(box_.wait_log("received common HTTP response, zor_airplay does not process it"));
    EXPECT_EQ(reverse.recv_some(std::chrono::milliseconds(500)), "");
    EXPECT_EQ(zt::status_code(ask(reverse, server_info())), 200);
    // No video was started, so nothing else arrived on it.
    EXPECT_EQ(reverse.recv_some(std::chrono::milliseconds(500)), "");
}

TEST_F(Session, UnknownRequestsAndFailedHandlers) {
    Client c = connect();
    const std::string not_implemented =
        "HTTP/1.1 501 Not Implemented\r\nDate: <date>\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(without_date(ask(c, "GET /nothing-here HTTP/1.1\r\n\r\n")), not_implemented);
    EXPECT_EQ(without_date(ask(c, "POST /fp-setup HTTP/1.1\r\nContent-Length: 0\r\n\r\n")),
              not_implemented);
    EXPECT_EQ(without_date(ask(c, "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n")), not_implemented);

    // A handler that fails answers 500 and the connection is closed after it.
    EXPECT_EQ(without_date(ask(c, "POST /rate HTTP/1.1\r\nContent-Length: 0\r\n\r\n")),
              "HTTP/1.1 500 Unknown\r\nDate: <date>\r\nContent-Length: 0\r\n\r\n");
    EXPECT_TRUE(c.closed_by_peer());
}

TEST_F(Session, PlayIsStartedOncePerSessionAndStopEndsTheSession) {
    const std::string play = "POST /play HTTP/1.1\r\nContent-Length: 0\r\n\r\n";
    const std::string repeat_line = "found second request sets, ommit second one";

    // Before any server-info both ids are empty, hence equal: a repeat, nothing starts.
    Client c = connect();
    EXPECT_EQ(without_date(ask(c, play)),
              "HTTP/1.1 200 OK\r\nDate: <date>\r\nContent-Length: 0\r\n\r\n");
    EXPECT_TRUE(box_.wait_log("-------------------------------------------------\n" + repeat_line +
                              "\n-------------------------------------------------\n"));

    // POST /stop with nothing shown: 200, and the session is forgotten.
    ask(c, server_info("X-Apple-Session-ID: " + kSessionId + "\r\n"));
    EXPECT_EQ(logged_guid(), kSessionId);
    EXPECT_EQ(without_date(ask(c, "POST /stop HTTP/1.1\r\nContent-Length: 0\r\n\r\n")),
              "HTTP/1.1 200 OK\r\nDate: <date>\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(logged_guid(), kNoSession);
    // The played id was emptied too: POST /play now is a repeat again.
    EXPECT_EQ(zt::status_code(ask(c, play)), 200);
    EXPECT_EQ(log_count(repeat_line), 2u);
    for (const auto& cmd : box_.commands()) EXPECT_NE(cmd.name, "start_vod");
}

TEST_F(Session, FixedRepliesWhileNothingPlays) {
    Client c = connect();
    size_t received = log_count("AIRPLAY RECEIVED");
    std::string info = ask(c, "GET /playback-info HTTP/1.1\r\nContent-Length: 0\r\n\r\n");
    const std::string info_body =
        kPlistHead +
        "<dict>\r\n<key>duration</key> <real>0.000000</real>\r\n<key>loadedTimeRanges</key>\r\n"
        "<array>\r\n<dict>\r\n<key>duration</key> <real>0.000000</real>\r\n"
        "<key>start</key> <real>0.0</real>\r\n</dict>\r\n</array>\r\n"
        "<key>playbackBufferEmpty</key> <true/>\r\n<key>playbackBufferFull</key> <false/>\r\n"
        "<key>playbackLikelyToKeepUp</key> <true/>\r\n<key>position</key> <real>0.000000</real>\r\n"
        "<key>rate</key> <real>0</real>\r\n<key>readyToPlay</key> <true/>\r\n"
        "<key>seekableTimeRanges</key>\r\n<array>\r\n<dict>\r\n<key>duration</key>\r\n"
        "<real>0.000000</real>\r\n<key>start</key>\r\n<real>0.0</real>\r\n</dict>\r\n"
        "</array>\r\n</dict>\r\n</plist>\r\n";
    EXPECT_EQ(without_date(info), framed("Content-Type: text/x-apple-plist+xml", info_body));
    // The one request that is not logged: senders poll it every second.
    EXPECT_EQ(log_count("AIRPLAY RECEIVED"), received);

    EXPECT_EQ(
        without_date(ask(c, "GET /scrub HTTP/1.1\r\n\r\n")),
        framed("Content-Type: text/parameters", "duration: 0.000000\r\nposition: 0.000000\r\n"));
    EXPECT_EQ(log_count("AIRPLAY RECEIVED"), received + 1);
}

TEST_F(Session, PropertyLogs) {
    const std::string binary = "Content-Type: application/x-apple-binary-plist";
    Client c = connect();
    time_t before = time(nullptr);
    std::string access = ask(c, kAccessLog);
    time_t after = time(nullptr);

    // The date is the current UTC time.
    std::string date = zt::plist_value(zt::body_of(access), "date");
    tm utc{};
    const char* rest = strptime(date.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    ASSERT_TRUE(rest != nullptr && std::string(rest) == "Z") << date;
    time_t logged = timegm(&utc);
    EXPECT_GE(logged, before);
    EXPECT_LE(logged, after);
    const std::string access_body =
        "<BINARY PLIST DATA>\r\n" + kPlistHead +
        "<dict>\r\n<key>errorCode</key>\r\n<integer>0</integer>\r\n<key>value</key>\r\n"
        "<array>\r\n<dict>\r\n<key>bytes</key> <integer>0</integer>\r\n"
        "<key>c-duration-downloaded</key> <real>0</real>\r\n"
        "<key>c-duration-watched</key> <real>0.000000</real>\r\n"
        "<key>c-frames-dropped</key> <integer>0</integer>\r\n"
        "<key>c-observed-bitrate</key> <real>14598047.302367469</real>\r\n"
        "<key>c-overdue</key> <integer>0</integer>\r\n<key>c-stalls</key> <integer>0</integer>\r\n"
        "<key>c-start-time</key> <real>0.0</real>\r\n"
        "<key>c-startup-time</key> <real>0.27732497453689575</real>\r\n"
        "<key>cs-guid</key> <string>" +
        kNoSession +
        "</string>\r\n"
        "<key>date</key> <date>" +
        date +
        "</date>\r\n"
        "<key>s-ip</key> <string>192.168.0.90</string>\r\n"
        "<key>s-ip-changes</key> <integer>0</integer>\r\n<key>sc-count</key> "
        "<integer>7</integer>\r\n"
        "<key>uri</key> <string></string>\r\n</dict>\r\n</array>\r\n</dict>\r\n</plist>\r\n";
    EXPECT_EQ(without_date(access), framed(binary, access_body));
    EXPECT_TRUE(box_.wait_log(kFence + "\n" + access_body + kFence + "\n"));

    std::string error = ask(c, "POST /getProperty?playbackErrorLog HTTP/1.1\r\n\r\n");
    const std::string error_body = "<BINARY PLIST DATA>\r\n" + kPlistHead +
                                   "<dict>\r\n<key>errorCode</key>\r\n<integer>0</integer>\r\n"
                                   "<key>value</key>\r\n</dict>\r\n</plist>\r\n";
    EXPECT_EQ(without_date(error), framed(binary, error_body));
    EXPECT_TRUE(box_.wait_log(kFence + "\n" + error_body + kFence + "\n"));
}

TEST_F(Session, HostileInputNeverStopsTheService) {
    Client c = connect();
    // More than a header block holds, without an end: answered in pieces, never overrun.
    ASSERT_TRUE(c.send(std::string(6000, 'x')));
    EXPECT_EQ(zt::status_code(c.recv_message()), 501);
    c.close();  // the rest would wait for an end of headers until the socket's time-out
    // Binary junk, and a request line that is nothing but a prefix of a known one.
    Client junk = connect();
    ASSERT_TRUE(junk.send("\x01\xff\x80POST /\xfe\r\n\r\n"));
    EXPECT_EQ(zt::status_code(junk.recv_message()), 501);
    Client partial = connect();
    EXPECT_EQ(zt::status_code(ask(partial, "GET /server-inf\r\n\r\n")), 501);
    // A client that connects and leaves at once.
    { Client gone = connect(); }
    Client after = connect();
    EXPECT_EQ(zt::status_code(ask(after, server_info())), 200);
    EXPECT_TRUE(box_.daemon().running());
}

}  // namespace
