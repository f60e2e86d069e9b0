// A sender's session against the real daemon: each reply format byte for byte, the session
// bookkeeping, the reverse connection, and requests the daemon does not know.
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "airplay_test_util.h"

namespace {

using zt::ask;
using zt::Client;
using zt::kPlistHead;
using zt::without_date;

const std::string kSessionId = "7A2C9B1E-0F4D-4E5A-8B6C-1D2E3F4A5B6C";
const std::string kNoSession = "00000000-0000-0000-0000-000000000000";
const std::string kFence = "[][][][][][][][][][][][][][][][][][][][][][]";
const std::string kAccessLog = "POST /getProperty?playbackAccessLog HTTP/1.1\r\n\r\n";

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
    void SetUp() override { ASSERT_TRUE(box_.start()); }
    void TearDown() override { zt::expect_no_sanitizer_report(box_.daemon_log()); }
    // The session id as the access log reports it.
    static std::string logged_guid() {
        return zt::plist_value(zt::body_of(zt::VideoSender::request(kAccessLog)), "cs-guid");
    }
    zt::Box box_;
};

TEST_F(Session, RepliesByteForByte) {
    const std::string plist = "text/x-apple-plist+xml", binary = "application/x-apple-binary-plist";
    const std::string zero = "<real>0.000000</real>", range = "<key>start</key> <real>0.0</real>";
    const std::string info =
        kPlistHead + "<dict>\r\n<key>duration</key> " + zero +
        "\r\n<key>loadedTimeRanges</key>\r\n"
        "<array>\r\n<dict>\r\n<key>duration</key> " +
        zero + "\r\n" + range +
        "\r\n</dict>\r\n"
        "</array>\r\n<key>playbackBufferEmpty</key> <true/>\r\n<key>playbackBufferFull</key> "
        "<false/>\r\n<key>playbackLikelyToKeepUp</key> <true/>\r\n<key>position</key> " +
        zero +
        "\r\n<key>rate</key> <real>0</real>\r\n<key>readyToPlay</key> <true/>\r\n"
        "<key>seekableTimeRanges</key>\r\n<array>\r\n<dict>\r\n<key>duration</key>\r\n" +
        zero +
        "\r\n<key>start</key>\r\n<real>0.0</real>\r\n</dict>\r\n</array>\r\n</dict>\r\n</"
        "plist>\r\n";
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
        {"GET /nothing-here HTTP/1.1\r\n\r\n", not_implemented},
        {"POST /fp-setup HTTP/1.1\r\nContent-Length: 0\r\n\r\n", not_implemented},
        {"OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n", not_implemented},
        {"GET /server-inf\r\n\r\n", not_implemented},  // a prefix of a known request
        {"\x01\xff\x80POST /\xfe\r\n\r\n", not_implemented},
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
    // The Date reads like "Mon, 02 Jan 2006 15:04:05 UTC".
    std::string date = zt::header_value(zt::VideoSender::request(server_info()), "Date");
    tm parsed{};
    const char* rest = strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S", &parsed);
    EXPECT_TRUE(rest != nullptr && rest[0] == ' ' && rest[1] != '\0') << date;
    EXPECT_TRUE(box_.wait_log(kFence + "\n" + error_log + kFence + "\n"));

    // The access log: its date is the current UTC time, and the body goes to the log too.
    time_t before = time(nullptr);
    std::string access = zt::VideoSender::request(kAccessLog);
    date = zt::plist_value(zt::body_of(access), "date");
    rest = strptime(date.c_str(), "%Y-%m-%dT%H:%M:%S", &parsed);
    ASSERT_TRUE(rest != nullptr && std::string(rest) == "Z") << date;
    EXPECT_GE(timegm(&parsed), before);
    EXPECT_LE(timegm(&parsed), time(nullptr));
    auto item = [](const char* key, const std::string& value) {
        return std::string("<key>") + key + "</key> " + value + "\r\n";
    };
    const std::string access_body =
        "<BINARY PLIST DATA>\r\n" + kPlistHead +
        "<dict>\r\n<key>errorCode</key>\r\n<integer>0"
        "</integer>\r\n<key>value</key>\r\n<array>\r\n<dict>\r\n" +
        item("bytes", "<integer>0</integer>") + item("c-duration-downloaded", "<real>0</real>") +
        item("c-duration-watched", zero) + item("c-frames-dropped", "<integer>0</integer>") +
        item("c-observed-bitrate", "<real>14598047.302367469</real>") +
        item("c-overdue", "<integer>0</integer>") + item("c-stalls", "<integer>0</integer>") +
        item("c-start-time", "<real>0.0</real>") +
        item("c-startup-time", "<real>0.27732497453689575</real>") +
        item("cs-guid", "<string>" + kNoSession + "</string>") +
        item("date", "<date>" + date + "</date>") + item("s-ip", "<string>192.168.0.90</string>") +
        item("s-ip-changes", "<integer>0</integer>") + item("sc-count", "<integer>7</integer>") +
        item("uri", "<string></string>") + "</dict>\r\n</array>\r\n</dict>\r\n</plist>\r\n";
    EXPECT_EQ(without_date(access), framed(binary, access_body));
    EXPECT_TRUE(box_.wait_log(kFence + "\n" + access_body + kFence + "\n"));

    // The reverse connection: 101, and the sender's answers to events get no reply.
    Client reverse = Client::connect("127.0.0.1", 7000);
    EXPECT_EQ(without_date(ask(reverse,
                               "POST /reverse HTTP/1.1\r\nUpgrade: PTTH/1.0\r\n"
                               "Connection: Upgrade\r\nX-Apple-Purpose: event\r\n"
                               "Content-Length: 0\r\n\r\n")),
              "HTTP/1.1 101 Switching Protocols\r\nDate: <date>\r\nContent-Length: 0\r\n"
              "Upgrade: PTTH/1.0\r\nConnection: Upgrade\r\n\r\n");
    ASSERT_TRUE(reverse.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_TRUE(box_.wait_log("received common HTTP response, zor_airplay does not process it"));
    EXPECT_EQ(zt::status_code(ask(reverse, server_info())), 200);
    // No video was started, so nothing else arrived on it.
    EXPECT_EQ(reverse.recv_some(std::chrono::milliseconds(300)), "");
}

TEST_F(Session, SessionIdsPlayRepeatsAndHostileInput) {
    const std::string play = "POST /play HTTP/1.1\r\nContent-Length: 0\r\n\r\n";
    const std::string repeat = "found second request sets, ommit second one";
    // Before any server-info both ids are empty, hence equal: a repeat, nothing starts.
    EXPECT_EQ(zt::status_code(zt::VideoSender::request(play)), 200);
    const std::string dashes(49, '-');
    EXPECT_TRUE(box_.wait_log(dashes + "\n" + repeat + "\n" + dashes + "\n"));

    zt::VideoSender::request(server_info(kSessionId));
    EXPECT_EQ(logged_guid(), kSessionId);
    zt::VideoSender::request(server_info());  // without the header: the session stays
    EXPECT_EQ(logged_guid(), kSessionId);
    // POST /stop with nothing shown forgets the session, and the played id with it: POST
    // /play is a repeat again.
    EXPECT_EQ(zt::VideoSender::post("/stop"), 200);
    EXPECT_EQ(logged_guid(), kNoSession);
    EXPECT_EQ(zt::status_code(zt::VideoSender::request(play)), 200);
    EXPECT_TRUE(zt::wait_until([&] { return zt::occurrences(box_.daemon_log(), repeat) == 2; }));
    EXPECT_TRUE(zt::commands_named(box_, "start_vod").empty());

    // The id is always the 36 characters after the name: without a blank after the colon
    // the first is skipped and a short id runs on into the next header line.
    std::string request =
        "GET /server-info HTTP/1.1\r\nX-Apple-Session-ID:ABCDEF\r\n"
        "User-Agent: AirPlay/320.20\r\nContent-Length: 0\r\n\r\n";
    zt::VideoSender::request(request);
    EXPECT_EQ(logged_guid(), request.substr(request.find(':') + 2, 36));
    // A name at the very end of a full header block takes what is there, perhaps nothing.
    for (auto [tail, guid] :
         {std::pair<std::string, std::string>{"X-Apple-Session-ID: 12345", "12345"},
          {"X-Apple-Session-ID:", kNoSession}}) {
        std::string full = "GET /server-info HTTP/1.1\r\n";
        full += std::string(5119 - full.size() - tail.size(), 'a') + tail;
        EXPECT_EQ(zt::status_code(zt::VideoSender::request(full)), 200) << tail;
        EXPECT_EQ(logged_guid(), guid);
    }

    // More than a header block holds, without an end: answered, never overrun.
    Client c = Client::connect("127.0.0.1", 7000);
    ASSERT_TRUE(c.send(std::string(6000, 'x')));
    EXPECT_EQ(zt::status_code(c.recv_message()), 501);
    c.close();
    { Client gone = Client::connect("127.0.0.1", 7000); }  // connects and leaves at once
    EXPECT_EQ(zt::status_code(zt::VideoSender::request(server_info())), 200);
    EXPECT_TRUE(box_.daemon().running());
}

}  // namespace
