// socket_read and socket_write against peers that close, fail or send less than asked.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/support.h"
#include "tools/utils/net.h"

namespace {

using Pair = zt::SocketPair;

std::string capture(const std::function<void()>& fn) {
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(SocketRead, ReturnsWhatArrivedBeforeTheClose) {
    Pair p;
    std::string sent(100, 'x');
    ASSERT_EQ(write(p.peer, sent.data(), sent.size()), 100);
    p.close_peer();
    std::string buf(5120, '\0');
    int n = 0;
    std::string log = capture([&] { n = socket_read(p.sock, buf.data(), 5119); });
    EXPECT_EQ(n, 100);
    EXPECT_EQ(buf.substr(0, 100), sent);
    EXPECT_NE(log.find("read from sockfd : nothing left to read(0)  sockfd("), std::string::npos);
}

TEST(SocketRead, CompleteReadEndsThroughTheNothingLeftLine) {
    Pair p;
    ASSERT_EQ(write(p.peer, "abcdef", 6), 6);  // more than asked: the rest stays queued
    char buf[4] = {};
    int n = 0;
    std::string log = capture([&] { n = socket_read(p.sock, buf, 4); });
    EXPECT_EQ(n, 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    EXPECT_NE(log.find("nothing left to read(0)"), std::string::npos);
}

TEST(SocketRead, ClosedPeerErrorAndNullBuffer) {
    Pair p;
    p.close_peer();
    char buf[16];
    EXPECT_EQ(socket_read(p.sock, buf, sizeof(buf)), 0);
    EXPECT_EQ(socket_read(p.sock, nullptr, 16), 0);
    int n = 0;
    std::string log = capture([&] { n = socket_read(-1, buf, sizeof(buf)); });
    EXPECT_LT(n, 0);
    EXPECT_NE(log.find("read from sockfd : failed(-1) sockfd(-1)"), std::string::npos);
}

TEST(SocketWrite, ZeroBytesNullBufferAndClosedPeer) {
    signal(SIGPIPE, SIG_IGN);
    Pair p;
    int n = -1;
    std::string log = capture([&] { n = socket_write(p.sock, "x", 0); });
    EXPECT_EQ(n, 0);
    EXPECT_NE(log.find("write to sockfd done but suspicious(size:0)"), std::string::npos);
    EXPECT_EQ(socket_write(p.sock, nullptr, 10), 0);

    log = capture([&] { n = socket_write(p.sock, "hello", 5); });
    EXPECT_EQ(n, 5);
    EXPECT_NE(log.find("write to sockfd done(size:5)"), std::string::npos);

    p.close_peer();
    log = capture([&] { n = socket_write(p.sock, "hello", 5); });
    EXPECT_EQ(n, 0);
    EXPECT_NE(log.find("write to sockfd failed(-1)"), std::string::npos);
}
