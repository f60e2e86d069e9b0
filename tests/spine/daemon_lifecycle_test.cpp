// The real daemon's start-up and shutdown, inside the sandbox.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "support/box.h"
#include "support/support.h"

namespace {

bool is_fifo(const char* path) {
    struct stat st {};
    return ::lstat(path, &st) == 0 && S_ISFIFO(st.st_mode);
}

void write_file(const char* path, const std::string& text) {
    std::ofstream(path) << text;
}

}  // namespace

TEST(DaemonLifecycle, StartsCleanAndEveryPortAnswers) {
    // Leftovers of an earlier run: a stale pipe (a plain file holding data), the key-stop
    // signal and the photo files.
    write_file("/tmp/airplay_pipe", "stop\n");
    write_file("/tmp/airplay_key_stopped.txt", "key_stopped");
    write_file("/tmp/airplay_photo.jpg", "old");
    write_file("/tmp/airplay_photo.flg", "1");

    zt::Box box;
    ASSERT_TRUE(box.start_daemon()) << box.daemon_log();
    EXPECT_TRUE(is_fifo("/tmp/airplay_pipe"));
    EXPECT_FALSE(zt::file_exists("/tmp/airplay_key_stopped.txt"));
    EXPECT_FALSE(zt::file_exists("/tmp/airplay_photo.jpg"));
    EXPECT_FALSE(zt::file_exists("/tmp/airplay_photo.flg"));

    zt::Client airplay = zt::Client::connect("127.0.0.1", 7000);
    ASSERT_TRUE(airplay.ok());
    airplay.send("GET /x HTTP/1.1\r\nHost: box\r\n\r\n");
    std::string reply = airplay.recv_message();
    EXPECT_EQ(reply.rfind("HTTP/1.1 501 Not Implemented\r\nDate: ", 0), 0u) << reply;
    EXPECT_NE(reply.find("\r\nContent-Length: 0\r\n\r\n"), std::string::npos) << reply;

    zt::Client rtsp = zt::Client::connect("127.0.0.1", 5000);
    ASSERT_TRUE(rtsp.ok());
    rtsp.send("OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n");
    EXPECT_EQ(rtsp.recv_some(),
              "RTSP/1.0 200 OK\r\nAudio-Jack-Status: connected; type=analog\r\nCSeq: 1\r\n\r\n");

    // The eth0 side of the box answers too, not only loopback.
    const char* ip = std::getenv("ZOR_ETH0_IP");
    zt::Client outside = zt::Client::connect(ip ? ip : "192.0.2.10", 4000);
    EXPECT_TRUE(outside.ok());

    EXPECT_EQ(box.stop_daemon(), 0) << box.daemon_log();
}

TEST(DaemonLifecycle, SigtermAndSigintEndItWithStatusZero) {
    for (int sig : {SIGTERM, SIGINT}) {
        zt::Box box;
        ASSERT_TRUE(box.start_daemon());
        // A connection that stays open must not keep the daemon alive.
        zt::Client idle = zt::Client::connect("127.0.0.1", 7000);
        ASSERT_TRUE(idle.ok());
        EXPECT_EQ(box.daemon().stop(sig, std::chrono::seconds(10)), 0) << box.daemon_log();
    }
}

TEST(DaemonLifecycle, PortTakenByAnotherProcessEndsStartUp) {
    int squatter = zt::listen_on("0.0.0.0", 7000);
    ASSERT_GE(squatter, 0);
    zt::Process daemon;
    ASSERT_TRUE(daemon.start({zt::build_dir() + "/zor_airplay"}, "/tmp/zor_airplay.log"));
    EXPECT_EQ(daemon.wait_exit(std::chrono::seconds(10)), 0);
    std::string log = daemon.log();
    size_t at = log.find("Failed to create socket: ");
    ASSERT_NE(at, std::string::npos) << log;
    EXPECT_NE(log.find("Error [File:"), std::string::npos) << log;
    EXPECT_EQ(log[at + 25], '-') << log;  // the first number, the 7000 socket, is negative
    EXPECT_NE(log.find("bind fail("), std::string::npos) << log;
    ::close(squatter);
}
