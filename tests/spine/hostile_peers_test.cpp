// Peers that trickle, send garbage, pipeline or flood: every port keeps serving the others,
// and SIGTERM ends the daemon whatever they do.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>
#include <vector>

#include "support/box.h"
#include "support/support.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

const int kPorts[] = {7000, 5000, 4000};

// A connection from a chosen loopback address, so a test can be several peers at once.
zt::Client connect_from(const std::string& source, int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, source.c_str(), &a.sin_addr);
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) ::close(fd), fd = -1;
    return zt::Client(fd);
}

// Sends one byte of a request line every 500 ms until stop or a failed send.
std::thread trickle(zt::Client* c, std::atomic<bool>* stop) {
    return std::thread([c, stop] {
        while (!*stop && c->send("G")) std::this_thread::sleep_for(500ms);
    });
}

// Anything back (a reply or the close) within a second.
bool answered_within_a_second(int port, const std::string& request) {
    zt::Client c = zt::Client::connect("127.0.0.1", port);
    auto start = clock_type::now();
    c.send(request);
    std::string got = c.recv_some(1s);
    return (!got.empty() || c.closed_by_peer(50ms)) && clock_type::now() - start < 1s;
}

double cpu_seconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string field;
    double ticks = 0;
    for (int i = 1; i <= 15 && in >> field; ++i)
        if (i == 14 || i == 15) ticks += std::stod(field);
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

size_t count(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++n;
    return n;
}

}  // namespace

TEST(HostilePeers, TricklersGarbageAndPipelinesNeverHoldAPort) {
    zt::Box box;
    ASSERT_TRUE(box.start());
    std::atomic<bool> stop{false};
    std::vector<zt::Client> tricklers;
    for (int port : kPorts) tricklers.push_back(zt::Client::connect("127.0.0.1", port));
    std::vector<std::thread> threads;
    for (auto& t : tricklers) threads.push_back(trickle(&t, &stop));
    std::this_thread::sleep_for(1500ms);

    EXPECT_TRUE(answered_within_a_second(7000, "GET /nothing HTTP/1.1\r\n\r\n"));
    EXPECT_TRUE(answered_within_a_second(5000, "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n"));
    EXPECT_TRUE(answered_within_a_second(4000, "GET /nothing HTTP/1.1\r\n\r\n"));

    zt::Client nul = zt::Client::connect("127.0.0.1", 7000);
    nul.send(std::string("GET /a\0b HTTP/1.1\r\n\r\n", 21));
    EXPECT_TRUE(nul.closed_by_peer(1s));

    zt::Client pipeline = zt::Client::connect("127.0.0.1", 7000);
    std::string fifty;
    for (int i = 0; i < 50; ++i) fifty += "GET /nothing-" + std::to_string(i) + " HTTP/1.1\r\n\r\n";
    pipeline.send(fifty);
    for (int i = 0; i < 50; ++i) ASSERT_EQ(zt::status_code(pipeline.recv_message()), 501) << i;

    for (auto& t : tricklers) EXPECT_TRUE(t.closed_by_peer(12s));
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(count(box.daemon_log(), "not complete within 10 s"), 3u) << box.daemon_log();
}

TEST(HostilePeers, UnreadBodyBehindARepeatedPlayIsNeverTakenForARequest) {
    zt::Box box;
    ASSERT_TRUE(box.start());
    zt::Client c = zt::Client::connect("127.0.0.1", 7000);
    std::string id = "X-Apple-Session-ID: 01234567-89ab-cdef-0123-456789abcdef\r\n";
    c.send("GET /server-info HTTP/1.1\r\n" + id + "\r\n");
    ASSERT_EQ(zt::status_code(c.recv_message()), 200);
    std::string body = "Content-Location: http://192.0.2.20:8080/v.mp4\nStart-Position: 0\n";
    std::string head = "POST /play HTTP/1.1\r\nContent-Type: text/parameters\r\nContent-Length: " +
                       std::to_string(body.size()) + "\r\n\r\n";
    c.send(head + body);
    ASSERT_EQ(zt::status_code(c.recv_message()), 200);
    c.send(head);  // the repeat is answered without its body, which comes late
    ASSERT_EQ(zt::status_code(c.recv_message()), 200);
    std::this_thread::sleep_for(300ms);
    c.send(body + "GET /playback-info HTTP/1.1\r\n\r\n");
    EXPECT_EQ(zt::status_code(c.recv_message(2s)), 200);
}

TEST(HostilePeers, FloodBeyondTheCapsIsRefusedQuietlyAndThePortRecovers) {
    zt::Box box;
    ASSERT_TRUE(box.start_daemon());
    double cpu_before = cpu_seconds(box.daemon().pid());
    auto start = clock_type::now();
    std::vector<zt::Client> flood;
    for (int round = 0; round < 2; ++round)
        for (int peer = 1; peer <= 4; ++peer)
            for (int i = 0; i < 20; ++i)
                flood.push_back(connect_from("127.0.0." + std::to_string(peer), 7000));
    std::this_thread::sleep_for(2s);
    size_t open = 0;
    for (auto& c : flood) open += c.ok() && !c.closed_by_peer(50ms);
    EXPECT_LE(open, 32u);
    EXPECT_LT(cpu_seconds(box.daemon().pid()) - cpu_before, 1.0);
    // One refusal line a second at most, however many were refused.
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(clock_type::now() - start);
    EXPECT_LE(count(box.daemon_log(), "refused connection"), size_t(seconds.count()) + 1);
    flood.clear();
    EXPECT_TRUE(zt::wait_until(
        [] { return answered_within_a_second(7000, "GET / HTTP/1.1\r\n\r\n"); }, 5s));
}

TEST(HostilePeers, StopWinsOverBodyReadsTricklersFloodsAndALatePlayer) {
    for (bool late_player : {false, true}) {
        zt::Box box;
        std::vector<std::string> options;
        if (late_player) options = {"--delay", "start_vod=30000"};
        ASSERT_TRUE(box.start(options));
        zt::Client play = zt::Client::connect("127.0.0.1", 7000);
        play.send(
            "GET /server-info HTTP/1.1\r\nX-Apple-Session-ID: "
            "01234567-89ab-cdef-0123-456789abcdef\r\n\r\n");
        ASSERT_EQ(zt::status_code(play.recv_message()), 200);
        // Late player: a whole request whose start waits 30 s for the player. Otherwise a
        // body that stops after its first bytes.
        std::string body = "Content-Location: http://192.0.2.20:1/v\n";
        size_t length = late_player ? body.size() : body.size() + 100;
        play.send("POST /play HTTP/1.1\r\nContent-Type: text/parameters\r\nContent-Length: " +
                  std::to_string(length) + "\r\n\r\n" + body);
        zt::Client trickler = zt::Client::connect("127.0.0.1", 5000);
        trickler.send("OPTIONS * RTSP/1.0\r\n");
        std::vector<zt::Client> flood;
        for (int i = 0; i < 40; ++i) flood.push_back(zt::Client::connect("127.0.0.1", 4000));
        if (late_player) {
            ASSERT_TRUE(box.wait_command("start_vod"));
        }
        std::this_thread::sleep_for(500ms);
        auto start = clock_type::now();
        EXPECT_EQ(box.stop_daemon(), 0) << late_player;
        EXPECT_LT(clock_type::now() - start, 10s) << late_player;
    }
}
