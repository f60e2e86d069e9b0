// The connection loops against many, stalled and hostile clients.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/box.h"
#include "support/support.h"

namespace {

std::string ask(zt::Client& c) {
    c.send("GET /nothing HTTP/1.1\r\n\r\n");
    return c.recv_message();
}

}  // namespace

TEST(ConnectionLoop, ServesSeveralOpenConnectionsAndClosesTheOnesThatEnd) {
    zt::Box box;
    ASSERT_TRUE(box.start_daemon());
    zt::Client first = zt::Client::connect("127.0.0.1", 7000);
    zt::Client second = zt::Client::connect("127.0.0.1", 7000);
    ASSERT_TRUE(first.ok() && second.ok());
    EXPECT_EQ(zt::status_code(ask(second)), 501);
    EXPECT_EQ(zt::status_code(ask(first)), 501);
    EXPECT_EQ(zt::status_code(ask(second)), 501);  // persistent: same connection again

    first.close();
    EXPECT_TRUE(box.wait_log("airplay_thread close socket")) << box.daemon_log();
    EXPECT_EQ(zt::status_code(ask(second)), 501);
}

TEST(ConnectionLoop, StalledClientIsCutOffAndOthersGoOn) {
    zt::Box box;
    ASSERT_TRUE(box.start_daemon());
    zt::Client stalled = zt::Client::connect("127.0.0.1", 7000);
    ASSERT_TRUE(stalled.ok());
    stalled.send("GET /half-a-request HTTP/1.1\r\nHost:");  // and then nothing
    // A half request holds nobody up: the next client is answered at once.
    zt::Client next = zt::Client::connect("127.0.0.1", 7000);
    ASSERT_TRUE(next.ok());
    next.send("GET /next HTTP/1.1\r\n\r\n");
    EXPECT_EQ(zt::status_code(next.recv_message(std::chrono::seconds(1))), 501);
    // The stalled request is given its ten seconds, then its connection is closed.
    EXPECT_TRUE(stalled.closed_by_peer(std::chrono::seconds(12)));
    EXPECT_NE(box.daemon_log().find("not complete within 10 s"), std::string::npos)
        << box.daemon_log();
}

TEST(ConnectionLoop, DescriptorsBeyondSelectsLimitAreRefused) {
    // The daemon inherits descriptors 16 to 1023 (open, not close-on-exec), so the few
    // connections after its own sockets get numbers that select cannot watch.
    rlimit lim{4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
    int devnull = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(devnull, 0);
    for (int fd = 16; fd < 1024; ++fd)
        if (fd != devnull) {
            ASSERT_EQ(::dup2(devnull, fd), fd);
        }
    zt::Box box;
    bool started = box.start_daemon();
    for (int fd = 16; fd < 1024; ++fd) ::close(fd);
    ::close(devnull);
    ASSERT_TRUE(started);

    std::vector<zt::Client> crowd;
    for (int i = 0; i < 20; ++i) {
        crowd.push_back(zt::Client::connect("127.0.0.1", 7000));
        ASSERT_TRUE(crowd.back().ok()) << i;
    }
    EXPECT_TRUE(box.wait_log("descriptor beyond select's limit")) << box.daemon_log();
    EXPECT_TRUE(crowd.back().closed_by_peer());           // refused at once
    EXPECT_EQ(zt::status_code(ask(crowd.front())), 501);  // the others are still served
    crowd.clear();
    // Once the crowd's connections are closed, a newcomer is served again.
    EXPECT_TRUE(zt::wait_until(
        [] {
            zt::Client fresh = zt::Client::connect("127.0.0.1", 7000);
            return fresh.ok() && zt::status_code(ask(fresh)) == 501;
        },
        std::chrono::seconds(30)));
    EXPECT_TRUE(box.daemon().running());
}
