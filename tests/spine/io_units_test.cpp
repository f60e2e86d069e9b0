// Request reading, the socket helpers and the main loop's interval over a socket pair.
#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <memory>
#include <thread>

#include "main/daemon.h"
#include "support/support.h"
#include "tools/utils/conn.h"

namespace {

std::string captured(const std::function<void()>& fn) {
    testing::internal::CaptureStdout(), fn(), fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// A connection on the pair's socket that reads requests into msg.
struct Reader {
    zt::SocketPair pair;
    net_conn conn;
    std::unique_ptr<net_message> msg = std::make_unique<net_message>();
    std::string log;  // what the last read logged
    Reader() { conn_open(&conn, pair.sock, 0); }
    int read() {
        int n = 0;
        log = captured([&] { net_message_clear(msg.get()), n = read_request(&conn, msg.get()); });
        return n;
    }
};

TEST(ReadRequest, PiecesClosesLimitsAndContentLengthMatchedExactly) {
    const std::string get = "GET /server-info HTTP/1.1\r\nHost: box\r\n\r\n", half(get, 0, 31);
    const std::string post = "POST /play HTTP/1.1\r\nContent-Length: 250\r\n\r\n", b(100, 'b');
    const std::string nul("GET /a\0b HTTP/1.1\r\n\r\n", 21);
    const std::string endless = "GET /" + std::string(6000, 'a');
    const std::string closed = "Read from sockfd failed(0) from sockfd(";
    struct Case {
        std::vector<std::string> pieces;  // each arrives as its own read
        bool close;                       // the peer closes after the last piece
        int result, content_length;
        std::string head, body, log;  // log: a line it contains
    };
    std::vector<Case> cases = {
        {{get.substr(0, 19), get.substr(19, 18), get.substr(37)}, false, 40, 0, get, "", ""},
        {{post + b}, false, int(post.size()) + 100, 250, post, b, ""},
        {{endless}, false, 5119, 0, endless.substr(0, 5119), "", closed},
        {{half}, true, 31, 0, half, "", ""},
        {{}, true, 0, 0, "", "", closed},
        {{nul}, false, -1, 0, "", "", "NUL byte"},
    };
    // Lower case is another header; blanks skipped; digits up to the first non-digit; saturates.
    const std::pair<const char*, int> lengths[] = {
        {"content-length: 12", 0}, {"Content-Length:    42", 42}, {"Content-Length: abc", 0},
        {"Content-Length: 17xyz", 17}, {"Content-Length: 99999999999", 0x7fffffff}};
    for (const auto& [header, length] : lengths) {
        const std::string request = std::string("POST /x HTTP/1.1\r\n") + header + "\r\n\r\n";
        cases.push_back({{request}, false, int(request.size()), length, request, "", ""});
    }
    for (const auto& c : cases) {
        Reader r;
        std::thread peer([&] {
            for (const auto& piece : c.pieces) {
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                EXPECT_TRUE(r.pair.send(piece));
            }
            if (c.close) r.pair.close_peer();
        });
        const int n = r.read();
        peer.join();
        const std::string what = c.pieces.empty() ? "closed" : c.pieces[0].substr(0, 20);
        EXPECT_NE(r.log.find(c.log), std::string::npos) << what << r.log;
        EXPECT_EQ(std::max(n, -1), c.result) << what;
        if (c.result < 0) continue;
        EXPECT_EQ(r.msg->content_length, c.content_length) << what;
        EXPECT_EQ(std::string(r.msg->head, size_t(r.msg->header_len)), c.head) << what;
        EXPECT_EQ(std::string(r.msg->body), c.body) << what;
        if (c.pieces.empty()) {  // the log line's format, byte for byte
            EXPECT_EQ(r.log, "\x1b[1;34m[ZOR_AIRPLAY] \x1b[0m" + closed +
                                 std::to_string(r.pair.sock) + ")\n");
        }
    }
}

TEST(ReadRequest, PipelinedBytesWaitForTheNextReadAndNeverCountAsBody) {
    Reader r;
    const std::string post = "POST /play HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
    const std::string second = "GET /playback-info HTTP/1.1\r\n\r\n";
    ASSERT_TRUE(r.pair.send(post + second));
    EXPECT_EQ(r.read(), int(post.size()));
    EXPECT_EQ(std::string(r.msg->body), "body");
    ASSERT_TRUE(conn_finish_request(&r.conn));
    EXPECT_EQ(r.read(), int(second.size()));
    EXPECT_EQ(std::string(r.msg->head), second);

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
    auto logs = [](const std::function<int()>& call, int result, const std::string& line) {
        int n = 0;
        EXPECT_NE(captured([&] { n = call(); }).find(line), std::string::npos) << line;
        EXPECT_EQ(n, result) << line;
    };
    ASSERT_TRUE(p.send("abcdef"));  // more than asked: the rest stays queued
    logs([&] { return socket_read(p.sock, buf, 4); }, 4,
         "read from sockfd : nothing left to read(0)  sockfd(");
    EXPECT_EQ(std::string(buf, 4), "abcd");
    ASSERT_TRUE(p.send(std::string(100, 'x')));
    logs([&] { return socket_write(p.sock, "hello", 5); }, 5, "write to sockfd done(size:5)");
    logs([&] { return socket_write(p.sock, "x", 0); }, 0,
         "write to sockfd done but suspicious(size:0)");
    EXPECT_EQ(socket_write(p.sock, nullptr, 10), 0);
    p.close_peer();
    EXPECT_EQ(socket_read(p.sock, buf, 150), 102);  // what came before the close: "ef" and 100
    EXPECT_EQ(socket_read(p.sock, buf, 16), 0);
    EXPECT_EQ(socket_read(p.sock, nullptr, 16), 0);
    logs([&] { return socket_write(p.sock, "hello", 5); }, 0, "write to sockfd failed(-1)");
    logs([&] { return socket_read(-1, buf, 16); }, -1, "read from sockfd : failed(-1) sockfd(-1)");
}

TEST(PollLoop, TrafficKeepsItBusyFor50PassesThenIdle) {
    daemon_init_session(&g_daemon.session);
    g_daemon.stop_flag = 1;  // the passes skip their sleep; the count is what is tested here
    // An idle pass leaves the countdown alone; traffic on every later pass does not restart it.
    for (int pass = 0, countdown = 50; pass <= 50; ++pass) {
        g_daemon.poll_interval_us = pass ? kPollBusyUs : kPollIdleUs, daemon_poll_pass(&countdown);
        ASSERT_EQ(countdown, pass % 50 ? 50 - pass : 50) << pass;
        ASSERT_EQ(g_daemon.poll_interval_us.load(), pass % 50 ? kPollBusyUs : kPollIdleUs) << pass;
    }
}

}  // namespace
