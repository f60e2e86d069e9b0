// The real daemon against many, stalled, hostile and flooding peers: every port keeps serving
// the others, and a signal ends the daemon with status 0 whatever they do.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "support/box.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

const std::string kNothing = "GET /nothing HTTP/1.1\r\n\r\n";
const std::string kOptions = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
const std::string kSession =
    "GET /server-info HTTP/1.1\r\nX-Apple-Session-ID: 01234567-89ab-cdef-0123-456789abcdef\r\n\r\n";
const std::string kBody = "Content-Location: http://192.0.2.20:8080/v.mp4\nStart-Position: 0\n";

int ask(zt::Client& c, const std::string& request = kNothing) {
    return c.send(request) ? zt::status_code(c.recv_message()) : -1;
}
std::string play(size_t length, const std::string& body) {
    return "POST /play HTTP/1.1\r\nContent-Type: text/parameters\r\nContent-Length: " +
           std::to_string(length) + "\r\n\r\n" + body;
}
// Anything back (a reply or the close) within a second.
bool answered_within_a_second(int port, const std::string& request = kNothing) {
    zt::Client c = zt::Client::connect("127.0.0.1", port);
    auto start = clock_type::now();
    c.send(request);
    return (!c.recv_some(1s).empty() || c.closed_by_peer(50ms)) && clock_type::now() - start < 1s;
}

// Peers that send one byte of a request line every 500 ms, one per port.
struct Tricklers {
    std::atomic<bool> stop{false};
    std::vector<zt::Client> peers;
    std::thread thread;
    Tricklers() {
        for (int port : {7000, 5000, 4000}) peers.push_back(zt::Client::connect("127.0.0.1", port));
        thread = std::thread([this] {
            for (; !stop; std::this_thread::sleep_for(500ms))
                for (auto& c : peers) c.send("G");
        });
    }
    ~Tricklers() { stop = true, thread.join(); }
};

TEST(Daemon, OneStartServesEveryPortThroughStalledHalfClosedAndPipelinedPeers) {
    // Leftovers of an earlier run: a stale pipe (a plain file), the key-stop signal, photos.
    const char* stale[] = {"/tmp/airplay_pipe", "/tmp/airplay_key_stopped.txt",
                           "/tmp/airplay_photo.jpg", "/tmp/airplay_photo.flg"};
    for (const char* path : stale) std::ofstream(path) << "stop\n";
    zt::Box box;
    ASSERT_TRUE(box.start()) << box.daemon_log();
    struct stat st {};
    EXPECT_TRUE(::lstat(stale[0], &st) == 0 && S_ISFIFO(st.st_mode));
    for (int i = 1; i < 4; ++i) EXPECT_FALSE(zt::file_exists(stale[i])) << stale[i];

    Tricklers tricklers;
    zt::Client first = zt::Client::connect("127.0.0.1", 7000),
               rtsp = zt::Client::connect("127.0.0.1", 5000);
    EXPECT_EQ(ask(first, "GET /x HTTP/1.1\r\nHost: box\r\n\r\n"), 501);
    EXPECT_EQ(ask(rtsp, kOptions), 200);
    EXPECT_TRUE(zt::Client::connect(std::getenv("ZOR_ETH0_IP"), 4000).ok());  // not only lo

    // Half requests hold nobody up; several connections are served in turn, persistently.
    std::this_thread::sleep_for(1500ms);
    for (int port : {7000, 5000, 4000})
        EXPECT_TRUE(answered_within_a_second(port, port == 5000 ? kOptions : kNothing)) << port;
    zt::Client second = zt::Client::connect("127.0.0.1", 7000);
    EXPECT_EQ(ask(first), 501);

    std::string fifty;
    for (int i = 0; i < 50; ++i) fifty += "GET /nothing-" + std::to_string(i) + " HTTP/1.1\r\n\r\n";
    second.send(fifty);
    for (int i = 0; i < 50; ++i) ASSERT_EQ(zt::status_code(second.recv_message()), 501) << i;
    // A peer that ends its side after pipelined requests still gets every reply.
    zt::Client half = zt::Client::connect("127.0.0.1", 7000);
    half.send(kNothing + kNothing);
    ::shutdown(half.fd(), SHUT_WR);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(zt::status_code(half.recv_message()), 501);
    EXPECT_TRUE(half.closed_by_peer());

    // A repeated play is answered before its body comes; that body is never a request.
    EXPECT_EQ(ask(second, kSession), 200);
    EXPECT_EQ(ask(second, play(kBody.size(), kBody)), 200);
    EXPECT_EQ(ask(second, play(kBody.size(), "")), 200);
    std::this_thread::sleep_for(300ms);
    second.send(kBody + "GET /playback-info HTTP/1.1\r\n\r\n");
    EXPECT_EQ(zt::status_code(second.recv_message(2s)), 200);

    // Each stalled request is given its ten seconds, then its connection is closed.
    for (auto& t : tricklers.peers) EXPECT_TRUE(t.closed_by_peer(12s));
    EXPECT_EQ(zt::occurrences(box.daemon_log(), "not complete within 10 s"), 3u)
        << box.daemon_log();

    // SIGTERM wins over a body that stops after its first bytes, a trickler and a flood.
    zt::Client stuck = zt::Client::connect("127.0.0.1", 7000);
    stuck.send(play(kBody.size() + 100, kBody));
    Tricklers more;
    std::vector<zt::Client> flood;
    for (int i = 0; i < 40; ++i) flood.push_back(zt::Client::connect("127.0.0.1", 4000));
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(box.daemon().stop(SIGTERM, 10s), 0);
}

TEST(Daemon, DescriptorsBeyondSelectsLimitAreRefusedAndSigintWinsOverALatePlayer) {
    zt::Box box;
    ASSERT_TRUE(box.start_player({"--delay", "start_vod=30000"}));
    // The daemon inherits descriptors 16 to 1023 (open, not close-on-exec), so the few
    // connections after its own sockets get numbers that select cannot watch.
    rlimit lim{4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
    int devnull = ::open("/dev/null", O_RDONLY);
    for (int fd = 16; fd < 1024; ++fd) ASSERT_TRUE(fd == devnull || ::dup2(devnull, fd) == fd);
    bool started = box.start_daemon();
    for (int fd = 16; fd < 1024; ++fd) ::close(fd);
    ::close(devnull);
    ASSERT_TRUE(started);

    std::vector<zt::Client> crowd;
    for (int i = 0; i < 20; ++i) crowd.push_back(zt::Client::connect("127.0.0.1", 7000));
    EXPECT_TRUE(box.wait_log("descriptor beyond select's limit")) << box.daemon_log();
    EXPECT_TRUE(crowd.back().closed_by_peer());  // refused at once
    EXPECT_EQ(ask(crowd.front()), 501);          // the others are still served
    crowd.resize(1);  // once the crowd has gone, a newcomer is served again
    zt::Client c;
    EXPECT_TRUE(zt::wait_until(
        [&] { return (c = zt::Client::connect("127.0.0.1", 7000)).ok() && ask(c) == 501; }, 30s));
    // Neither a start waiting for the player nor an open connection keeps the daemon alive.
    ASSERT_EQ(ask(c, kSession), 200);
    c.send(play(kBody.size(), kBody));
    ASSERT_TRUE(box.wait_command("start_vod"));
    EXPECT_EQ(box.daemon().stop(SIGINT, 10s), 0) << box.daemon_log();
}

TEST(Daemon, PortTakenEndsStartUpAndAFloodBeyondTheCapsIsRefusedQuietly) {
    int squatter = zt::listen_on("0.0.0.0", 7000);
    ASSERT_GE(squatter, 0);
    zt::Box box;
    box.start_daemon();  // port 7000 accepts at once: the squatter's
    EXPECT_EQ(box.daemon().wait_exit(10s), 0);
    // The first number, the 7000 socket's, is negative.
    for (const char* line : {"Failed to create socket: -", "Error [File:", "bind fail("})
        EXPECT_NE(box.daemon_log().find(line), std::string::npos) << box.daemon_log();
    ::close(squatter);

    ASSERT_TRUE(box.start_daemon());
    auto start = clock_type::now();
    std::vector<zt::Client> flood;  // 40 connections from each of four peers
    for (int i = 0; i < 160; ++i)
        flood.push_back(zt::connect_from("127.0.0." + std::to_string(1 + i % 4), "127.0.0.1",
                                         7000));
    std::this_thread::sleep_for(2s);
    size_t open = 0;
    for (auto& c : flood) open += c.ok() && !c.closed_by_peer(50ms);
    EXPECT_LE(open, 32u);
    // One refusal line a second at most, however many were refused.
    const size_t seconds = (clock_type::now() - start) / 1s;
    EXPECT_LE(zt::occurrences(box.daemon_log(), "refused connection"), seconds + 1);
    flood.clear();
    EXPECT_TRUE(zt::wait_until([] { return answered_within_a_second(7000); }, 5s));
}

}  // namespace
