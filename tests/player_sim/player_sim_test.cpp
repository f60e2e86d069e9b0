// player_sim as the daemon sees it: its reply, the command log, faults on demand, PCM recorded
// from the FIFO into a WAV file, a clean end on SIGTERM (its video clock: the video tests).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/box.h"

namespace {

using namespace std::chrono_literals;

// Sends one raw GET and returns the whole reply ("" when the service closed silently).
std::string ask(const std::string& target) {
    zt::Client c = zt::Client::connect("127.0.0.1", 8008);
    c.send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:8008\r\n\r\n");
    return c.recv_all(15s);
}
// The text after "<tag>" (or "tag=" in /sim/state) up to the next '<' or line end.
std::string field(const std::string& reply, const std::string& tag) {
    for (const std::string& open : {"<" + tag + ">", "\n" + tag + "="}) {
        const size_t at = ("\n" + reply).find(open);  // a line end in front: "tag=" on line one
        if (at == std::string::npos) continue;
        const size_t from = at + open.size() - 1;
        return reply.substr(from, reply.find_first_of("<\n", from) - from);
    }
    return "<absent>";
}
std::string rv(const std::string& c) { return field(ask("/playback?arg0=" + c), "returnValue"); }
std::string aod(const char* m = "aod") {
    return field(ask("/playback?arg0=get_current_" + std::string(m) + "_info"), "currentStatus");
}

TEST(PlayerSim, RepliesLogsAndFaultsOnDemand) {
    zt::Box box;
    ASSERT_TRUE(box.start_player({"--refuse", "stop_pod", "--vod-status", "unknown"}));
    EXPECT_EQ(ask("/system?arg0=set_system_volume&arg1=-15%2E5"),
              "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: 91\r\n"
              "Connection: close\r\n\r\n<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response>\n"
              "<returnValue>0</returnValue>\n</response>\n");
    EXPECT_EQ(field(ask("/sim/state"), "volume"), "-15.5");
    // An unknown command, one of another service, a bad time, --refuse (every time): -1.
    const std::pair<std::string, std::string> cases[] = {
        {"no_such_command", "-1"}, {"set_system_volume&arg1=3", "-1"}, {"stop_pod", "-1"},
        {"set_time_seek_vod&arg1=1:2", "-1"}, {"set_time_seek_vod&arg1=123:04:05", "0"},
        {"stop_pod", "-1"}};
    for (const auto& [cmd, value] : cases) EXPECT_EQ(rv(cmd), value) << cmd;
    EXPECT_EQ(aod("vod") + " " + aod(), "unknown stop");
    ASSERT_EQ(box.commands().size(), 9u) << "control requests are not player commands";
    EXPECT_EQ(box.commands()[5].target, "/playback?arg0=set_time_seek_vod&arg1=123:04:05");
    box.sim("/sim/refuse?cmd=pause_vod&count=1");
    box.sim("/sim/close?cmd=resume_vod&count=1");
    for (const char* value : {"-1", "0"}) EXPECT_EQ(rv("pause_vod"), value);  // refused once
    EXPECT_EQ(ask("/playback?arg0=resume_vod"), "");                          // closed once
    EXPECT_EQ(rv("resume_vod"), "0");
}

std::string le32(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

TEST(PlayerSim, AudioIsRecordedAsWavAndSigtermEndsItWhileAnswersWait) {
    zt::Process sim;
    const std::string out = zt::Box::kSimOut;
    ASSERT_TRUE(sim.start({zt::build_dir() + "/player_sim", "--out", out}, "/tmp/sim.log"));
    ASSERT_TRUE(zt::wait_until([] { return zt::Client::connect("127.0.0.1", 8008, {}).ok(); }));
    ASSERT_EQ(::mkfifo("/tmp/airtunes", 0666), 0);
    EXPECT_EQ(rv("start_aod&arg1=AirPlayMusic&arg2=airtunes://AirPlayMusic.airtunes&arg3=marquee"
                 "&arg4=disable"), "0");
    int fd = -1;  // the write end opens once the player reads
    ASSERT_TRUE(
        zt::wait_until([&] { return (fd = ::open("/tmp/airtunes", O_WRONLY | O_NONBLOCK)) >= 0; }));
    ::fcntl(fd, F_SETFL, 0);
    EXPECT_EQ(aod(), "buffering");
    std::string pcm;
    for (int i = 0; i < 44100; ++i) pcm += {char(i), char(i >> 8), char(~i), char(i >> 3)};
    ASSERT_EQ(::write(fd, pcm.data(), pcm.size()), ssize_t(pcm.size()));
    EXPECT_TRUE(zt::wait_until([] { return aod() == "play"; }));
    ::close(fd);
    EXPECT_TRUE(zt::wait_until([] { return aod() == "stop"; }));
    // 16-bit stereo PCM at 44100 Hz, 4-byte sample frames.
    const std::string wav = "RIFF" + le32(36 + pcm.size()) + "WAVEfmt " + le32(16) +
                            le32(0x00020001) + le32(44100) + le32(44100 * 4) + le32(0x00100004) +
                            "data" + le32(pcm.size());
    EXPECT_TRUE(zt::read_file(out + "/audio.wav") == wav + pcm);

    // SIGTERM ends it at once while a reader waits for a writer and an answer waits.
    EXPECT_EQ(rv("start_aod"), "0");
    ask("/sim/delay?cmd=get_current_vod_info&ms=60000");
    zt::Client late = zt::Client::connect("127.0.0.1", 8008);
    ASSERT_TRUE(late.send("GET /playback?arg0=get_current_vod_info HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(
        zt::wait_until([&] { return zt::read_file(out + "/commands.log").ends_with("info\n"); }));
    EXPECT_EQ(sim.stop(SIGTERM, 5s), 0);
    EXPECT_TRUE(late.closed_by_peer(1s));
    EXPECT_EQ(zt::read_file(out + "/audio.wav").size(), 44u);
}

}  // namespace
