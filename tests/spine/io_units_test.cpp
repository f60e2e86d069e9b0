// Request reading, the socket helpers and the main loop's interval, without a daemon: the
// peer writes exactly what a sender would, piece by piece, over a socket pair.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "main/daemon.h"
#include "support/support.h"
#include "tools/utils/conn.h"

namespace {

std::string captured(const std::function<void()>& fn) {
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

struct ReadCase {
    std::vector<std::string> pieces;  // each arrives as its own read
    bool close = false;               // the peer closes after the last piece
    int result, header_len, content_length;
    std::string head, body, log;      // head and body: prefixes; log: a line it contains
};

TEST(ReadRequest, PiecesClosesAndLimits) {
    const std::string get = "GET /server-info HTTP/1.1\r\nHost: box\r\n\r\n";
    const std::string post = "POST /play HTTP/1.1\r\nContent-Length: 250\r\n\r\n";
    const std::string nul("GET /a\0b HTTP/1.1\r\n\r\n", 21), endless = "GET /" + std::string(6000, 'a');
    const ReadCase cases[] = {
        {{"GET /server-info HT", "TP/1.1\r\nHost: box\r", "\n\r\n"}, false, int(get.size()), int(get.size()), 0, get, "", ""},
        {{post + std::string(100, 'b')}, false, int(post.size()) + 100, int(post.size()), 250, post, std::string(100, 'b'), ""},
        {{endless}, false, 5119, 5119, 0, endless.substr(0, 5119), "", "Read from sockfd failed(0) from sockfd("},
        {{"GET /playback-info HTTP/1.1\r\nHo"}, true, 31, 31, 0, "GET /playback-info HTTP/1.1\r\nHo", "", ""},
        {{}, true, 0, 0, 0, "", "", "Read from sockfd failed(0) from sockfd("},
        {{nul}, false, -1, -1, -1, "", "", "NUL byte"},
    };
    for (const ReadCase& c : cases) {
        zt::SocketPair p;
        auto msg = std::make_unique<net_message>();
        net_message_clear(msg.get());
        std::thread peer([&] {
            for (const auto& piece : c.pieces) {
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                EXPECT_TRUE(p.send(piece));
            }
            if (c.close) p.close_peer();
        });
        int n = 0;
        std::string log = captured([&] {
            net_conn conn;
            conn_open(&conn, p.sock, 0);
            n = read_request(&conn, msg.get());
        });
        peer.join();
        std::string what = c.pieces.empty() ? "closed" : c.pieces[0].substr(0, 20);
        EXPECT_NE(log.find(c.log), std::string::npos) << what << log;
        if (c.result < 0) {
            EXPECT_LT(n, 0) << what;
            continue;
        }
        EXPECT_EQ(n, c.result) << what;
        EXPECT_EQ(msg->header_len, c.header_len) << what;
        EXPECT_EQ(msg->content_length, c.content_length) << what;
        EXPECT_EQ(std::string(msg->head, size_t(c.header_len)), c.head) << what;
        EXPECT_EQ(std::string(msg->body), c.body) << what;
        if (c.pieces.empty()) {  // one log line per format, byte for byte
            EXPECT_EQ(log, "\x1b[1;34m[ZOR_AIRPLAY] \x1b[0mRead from sockfd failed(0) from sockfd(" +
                               std::to_string(p.sock) + ")\n");
        }
    }
}

TEST(ReadRequest, ContentLengthIsMatchedExactly) {
    const std::pair<const char*, int> cases[] = {
        {"content-length: 12", 0},                    // lower case is another header
        {"Content-Length:    42", 42},                // blanks skipped
        {"Content-Length: abc", 0},                   // not a number
        {"Content-Length: 17xyz", 17},                // digits up to the first non-digit
        {"Content-Length: 99999999999", 0x7fffffff},  // saturates, never wraps negative
    };
    for (const auto& [header, expected] : cases) {
        zt::SocketPair p;
        auto msg = std::make_unique<net_message>();
        net_message_clear(msg.get());
        ASSERT_TRUE(p.send(std::string("POST /x HTTP/1.1\r\n") + header + "\r\n\r\n"));
        net_conn conn;
        conn_open(&conn, p.sock, 0);
        ASSERT_GT(read_request(&conn, msg.get()), 0);
        EXPECT_EQ(msg->content_length, expected) << header;
    }
}

TEST(ReadRequest, PipelinedRequestIsKeptForTheNextReadAndNeverCountedAsBody) {
    zt::SocketPair p;
    auto msg = std::make_unique<net_message>();
    net_message_clear(msg.get());
    std::string post = "POST /play HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
    std::string second = "GET /playback-info HTTP/1.1\r\n\r\n";
    ASSERT_TRUE(p.send(post + second));
    net_conn conn;
    conn_open(&conn, p.sock, 0);
    EXPECT_EQ(read_request(&conn, msg.get()), (int)post.size());
    EXPECT_EQ(std::string(msg->body), "body");
    ASSERT_TRUE(conn_finish_request(&conn));
    net_message_clear(msg.get());
    EXPECT_EQ(read_request(&conn, msg.get()), (int)second.size());
    EXPECT_EQ(std::string(msg->head), second);

    // The bounded search looks only before the last byte, restores it, stops at a zero byte.
    char text[] = "abc\r\n\r\nXYZ", with_zero[] = "ab\0cd";
    EXPECT_EQ(find_bounded(text, "\r\n\r\n", 7), nullptr);
    EXPECT_EQ(text[6], '\n');
    EXPECT_EQ(find_bounded(text, "\r\n\r\n", 8), text + 3);
    EXPECT_EQ(find_bounded(with_zero, "cd", sizeof(with_zero)), nullptr);
}

TEST(SocketHelpers, ShortReadsClosedPeersAndTheirLogLines) {
    signal(SIGPIPE, SIG_IGN);
    zt::SocketPair p;
    char buf[200] = {};
    int n = 0;
    ASSERT_TRUE(p.send("abcdef"));  // more than asked: the rest stays queued
    std::string log = captured([&] { n = socket_read(p.sock, buf, 4); });
    EXPECT_EQ(std::string(buf, size_t(n)), "abcd");
    EXPECT_NE(log.find("read from sockfd : nothing left to read(0)  sockfd("), std::string::npos);
    ASSERT_TRUE(p.send(std::string(100, 'x')));
    log = captured([&] { n = socket_write(p.sock, "hello", 5); });
    EXPECT_EQ(n, 5);
    EXPECT_NE(log.find("write to sockfd done(size:5)"), std::string::npos) << log;
    log = captured([&] { n = socket_write(p.sock, "x", 0); });
    EXPECT_NE(log.find("write to sockfd done but suspicious(size:0)"), std::string::npos) << log;
    EXPECT_EQ(socket_write(p.sock, nullptr, 10), 0);
    p.close_peer();
    EXPECT_EQ(socket_read(p.sock, buf, 150), 102);  // what came before the close: "ef" and 100
    EXPECT_EQ(socket_read(p.sock, buf, 16), 0);
    EXPECT_EQ(socket_read(p.sock, nullptr, 16), 0);
    log = captured([&] { n = socket_write(p.sock, "hello", 5); });
    EXPECT_EQ(n, 0);
    EXPECT_NE(log.find("write to sockfd failed(-1)"), std::string::npos) << log;
    log = captured([&] { n = socket_read(-1, buf, 16); });
    EXPECT_LT(n, 0);
    EXPECT_NE(log.find("read from sockfd : failed(-1) sockfd(-1)"), std::string::npos) << log;
}

TEST(PollLoop, TrafficKeepsItBusyFor50PassesThenIdle) {
    daemon_init_session(&g_daemon.session);
    int countdown = 50;
    g_daemon.poll_interval_us = kPollIdleUs;  // idle: a pass leaves the countdown alone
    daemon_poll_pass(&countdown);
    EXPECT_EQ(countdown, 50);
    g_daemon.poll_interval_us = kPollBusyUs;  // a connection loop saw traffic
    for (int pass = 1; pass < 50; ++pass) {
        daemon_poll_pass(&countdown);
        ASSERT_EQ(countdown, 50 - pass);
        ASSERT_EQ(g_daemon.poll_interval_us.load(), kPollBusyUs) << pass;
    }
    g_daemon.poll_interval_us = kPollBusyUs;  // more traffic does not restart the count
    daemon_poll_pass(&countdown);
    EXPECT_EQ(g_daemon.poll_interval_us.load(), kPollIdleUs);
    EXPECT_EQ(countdown, 50);
    EXPECT_EQ(get_activity_mask(), 0u);
}

}  // namespace
