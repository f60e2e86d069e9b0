// player_sim as the daemon sees it: replies and the command log, faults on demand, a video
// whose status follows a real fetch and the wall clock, PCM recorded from the FIFO into a
// WAV file, photos, and a clean end on SIGTERM.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "support/box.h"
#include "support/media_server.h"

namespace {

using namespace std::chrono_literals;

const std::string kOut = zt::Box::kSimOut;

// Sends one raw GET and returns the whole reply ("" when the service closed silently).
std::string ask(const std::string& target) {
    zt::Client c = zt::Client::connect("127.0.0.1", 8008);
    c.send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:8008\r\n\r\n");
    return c.recv_all(15s);
}
// The text between "<tag>" (or "tag=" in /sim/state) and the next '<' or line end.
std::string field(const std::string& reply, const std::string& tag) {
    bool xml = reply.find('<') != std::string::npos;
    std::string key = xml ? "<" + tag + ">" : tag + "=";
    size_t p = reply.find(key);
    if (p == std::string::npos) return "<absent>";
    p += key.size();
    return reply.substr(p, reply.find(xml ? '<' : '\n', p) - p);
}
std::string rv(const std::string& target) { return field(ask(target), "returnValue"); }
std::string state(const std::string& key) { return field(ask("/sim/state"), key); }
std::string vod(const std::string& tag) { return field(ask("/playback?arg0=get_current_vod_info"), tag); }
std::string aod() { return field(ask("/playback?arg0=get_current_aod_info"), "currentStatus"); }

TEST(PlayerSim, RepliesTheCommandLogFaultsAndPhotos) {
    zt::Box box;
    ASSERT_TRUE(box.start_player({"--refuse", "stop_pod", "--vod-status", "unknown"}));
    EXPECT_EQ(ask("/system?arg0=set_system_volume&arg1=-15%2E5"),
              "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: 91\r\nConnection: close\r\n\r\n"
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response>\n<returnValue>0</returnValue>\n"
              "</response>\n");
    EXPECT_EQ(state("volume"), "-15.5");
    const std::pair<std::string, std::string> cases[] = {
        {"/playback?arg0=no_such_command", "-1"},
        {"/playback?arg0=set_system_volume&arg1=3", "-1"},  // wrong service
        {"/playback?arg0=set_time_seek_vod&arg1=1:2", "-1"},
        {"/playback?arg0=set_time_seek_vod&arg1=123:04:05", "0"},
        {"/playback?arg0=stop_pod", "-1"},  // --refuse, every time
        {"/playback?arg0=stop_pod", "-1"},
    };
    for (const auto& [target, value] : cases) EXPECT_EQ(rv(target), value) << target;
    EXPECT_EQ(vod("currentStatus"), "unknown");
    EXPECT_EQ(aod(), "stop");
    auto cmds = box.commands();
    ASSERT_EQ(cmds.size(), 9u) << "control requests are not player commands";
    EXPECT_EQ(cmds[0].name, "set_system_volume");
    EXPECT_EQ(cmds[4].target, "/playback?arg0=set_time_seek_vod&arg1=123:04:05");
    EXPECT_LE(cmds[0].time_ms, cmds.back().time_ms);

    box.sim("/sim/refuse?cmd=pause_vod&count=1");
    EXPECT_EQ(rv("/playback?arg0=pause_vod"), "-1");
    EXPECT_EQ(rv("/playback?arg0=pause_vod"), "0");
    box.sim("/sim/close?cmd=resume_vod");
    EXPECT_EQ(ask("/playback?arg0=resume_vod") + ask("/playback?arg0=resume_vod"), "");
    box.sim("/sim/close?cmd=resume_vod&count=0");
    EXPECT_EQ(rv("/playback?arg0=resume_vod"), "0");
    // A late answer, and a request that never ends its header block, hold up only their own
    // connections.
    zt::Client idle = zt::Client::connect("127.0.0.1", 8008);
    ASSERT_TRUE(idle.send("GET /playback?arg0=stop_vod HTTP/1.1\r\n"));
    box.sim("/sim/delay?cmd=get_current_aod_info&ms=4000&count=1");
    auto t0 = std::chrono::steady_clock::now();
    zt::Client late = zt::Client::connect("127.0.0.1", 8008);
    ASSERT_TRUE(late.send("GET /playback?arg0=get_current_aod_info HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(box.wait_command("get_current_aod_info", 2));
    EXPECT_EQ(rv("/playback?arg0=stop_vod"), "0");
    EXPECT_EQ(field(late.recv_all(15s), "currentStatus"), "stop");
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 4000ms);
    EXPECT_TRUE(idle.closed_by_peer(15s));

    box.sim("/sim/reset");
    EXPECT_EQ(vod("currentStatus"), "stop");
    EXPECT_EQ(zt::status_code(ask("/sim/nonsense")), 400);
    const std::string show = "/playback?arg0=insert_pod_queue&arg1=AirPlayPhoto&arg2="
                             "file:///tmp/airplay_photo.jpg&arg3=&arg4=rot0&arg5=show";
    EXPECT_EQ(rv(show), "-1") << "no photo file yet";
    std::ofstream("/tmp/airplay_photo.jpg", std::ios::binary) << "\xff\xd8 jpeg \xff\xd9";
    EXPECT_EQ(rv(show), "0");
    EXPECT_EQ(zt::read_file(kOut + "/photo-1.jpg"), "\xff\xd8 jpeg \xff\xd9");
    EXPECT_EQ(state("photo"), "shown");
    EXPECT_EQ(rv("/playback?arg0=stop_pod"), "0");
    EXPECT_EQ(state("photo"), "hidden");
}

TEST(PlayerSim, VideoBuffersUntilMediaArrivesThenPlaysByTheClock) {
    zt::Box box;
    ASSERT_TRUE(box.start_player({"--duration", "100"}));
    zt::MediaFileServer media;
    ASSERT_TRUE(media.start(std::string(100000, 'm')));
    media.hold(true);
    // The URL arrives percent-encoded, every byte as the daemon writes it.
    const std::string start = "/playback?arg0=start_vod&arg1=AirPlayVideo&arg2=";
    EXPECT_EQ(rv(start + "http%3A%2F%2F192%2E0%2E2%2E20%3A8080%2Fmedia%2Fmovie%2Emp4&arg3=show"
                         "&arg4=00.500000"), "0");
    std::string request = media.wait_request(1);
    EXPECT_TRUE(request.starts_with("GET /media/movie.mp4 HTTP/1.1\r\n")) << request;
    EXPECT_EQ(zt::header_value(request, "Host"), "192.0.2.20:8080");
    EXPECT_EQ(vod("currentStatus") + " " + vod("currentTime"), "buffering 50");
    media.hold(false);
    ASSERT_TRUE(zt::wait_until([] { return vod("currentStatus") == "play"; }));
    EXPECT_EQ(vod("totalTime") + " " + vod("seekEnable"), "100 true");
    EXPECT_TRUE(zt::wait_until([] { return std::stol(vod("currentTime")) >= 52; }));
    EXPECT_TRUE(zt::wait_until([] { return state("vod_bytes") == "100000"; }));

    EXPECT_EQ(rv("/playback?arg0=pause_vod"), "0");
    EXPECT_EQ(rv("/playback?arg0=set_time_seek_vod&arg1=00:01:05"), "0");
    EXPECT_EQ(vod("currentStatus"), "pause");
    std::this_thread::sleep_for(1200ms);  // a paused clock must not move meanwhile
    EXPECT_EQ(vod("currentTime"), "65");
    EXPECT_EQ(rv("/playback?arg0=resume_vod"), "0");
    EXPECT_TRUE(zt::wait_until([] { return std::stol(vod("currentTime")) >= 66; }));
    EXPECT_EQ(rv("/playback?arg0=stop_vod"), "0");
    EXPECT_EQ(vod("currentStatus") + " " + vod("currentTime"), "stop 0");
    // A fetch that fails before any media leaves the player stopped.
    EXPECT_EQ(rv(start + "http%3A%2F%2F192%2E0%2E2%2E20%3A1%2Fx&arg3=show&arg4=00.000000"), "0");
    EXPECT_TRUE(zt::wait_until([] { return vod("currentStatus") == "stop"; }, 15s));
}

// Opens the write end of the PCM FIFO once the player reads it; -1 if it never does.
int open_fifo_writer() {
    int fd = -1;
    zt::wait_until([&] { return (fd = ::open("/tmp/airtunes", O_WRONLY | O_NONBLOCK)) >= 0; });
    if (fd >= 0) ::fcntl(fd, F_SETFL, 0);
    return fd;
}

std::string le32(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

TEST(PlayerSim, AudioIsRecordedAsWavAndSigtermEndsItWhileAnswersWait) {
    zt::Process sim;
    ASSERT_TRUE(sim.start({zt::build_dir() + "/player_sim", "--out", kOut}, "/tmp/player_sim.log"));
    ASSERT_TRUE(zt::wait_until([] { return zt::Client::connect("127.0.0.1", 8008, {}).ok(); }));
    ASSERT_EQ(::mkfifo("/tmp/airtunes", 0666), 0);
    EXPECT_EQ(rv("/playback?arg0=start_aod&arg1=AirPlayMusic&arg2=airtunes://"
                  "AirPlayMusic.airtunes&arg3=marquee&arg4=disable"), "0");
    EXPECT_EQ(aod(), "buffering");
    int fd = open_fifo_writer();  // the player has opened the read end
    ASSERT_GE(fd, 0);
    EXPECT_EQ(aod(), "buffering");
    std::string pcm;
    for (int i = 0; i < 44100; ++i) pcm += std::string{char(i), char(i >> 8), char(~i), char(i >> 3)};
    ASSERT_EQ(::write(fd, pcm.data(), pcm.size()), ssize_t(pcm.size()));
    EXPECT_TRUE(zt::wait_until([] { return aod() == "play"; }));
    ::close(fd);
    EXPECT_TRUE(zt::wait_until([] { return aod() == "stop"; }));
    // 16-bit stereo PCM at 44100 Hz, 4-byte sample frames.
    const std::string header = "RIFF" + le32(36 + pcm.size()) + "WAVEfmt " + le32(16) + le32(0x00020001) +
                               le32(44100) + le32(44100 * 4) + le32(0x00100004) + "data" + le32(pcm.size());
    EXPECT_TRUE(zt::read_file(kOut + "/audio.wav") == header + pcm);
    EXPECT_EQ(state("aod_bytes"), std::to_string(pcm.size()));

    // stop_aod closes the read end under a writer that is still there.
    EXPECT_EQ(rv("/playback?arg0=start_aod"), "0");
    ASSERT_GE(fd = open_fifo_writer(), 0);
    ASSERT_EQ(::write(fd, pcm.data(), 4000), 4000);
    EXPECT_TRUE(zt::wait_until([] { return aod() == "play"; }));
    EXPECT_EQ(rv("/playback?arg0=stop_aod"), "0");
    EXPECT_EQ(aod(), "stop");
    signal(SIGPIPE, SIG_IGN);
    EXPECT_TRUE(zt::wait_until([&] { return ::write(fd, "xxxx", 4) < 0; }));
    ::close(fd);
    EXPECT_EQ(zt::read_file(kOut + "/audio.wav").substr(40, 4), le32(4000));

    // SIGTERM ends it at once while a reader waits for a writer and an answer waits.
    EXPECT_EQ(rv("/playback?arg0=start_aod"), "0");
    ask("/sim/delay?cmd=get_current_vod_info&ms=60000");
    zt::Client late = zt::Client::connect("127.0.0.1", 8008);
    ASSERT_TRUE(late.send("GET /playback?arg0=get_current_vod_info HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(zt::wait_until([] {
        return zt::read_file(kOut + "/commands.log").find("get_current_vod_info") != std::string::npos;
    }));
    EXPECT_EQ(sim.stop(SIGTERM, 5s), 0);
    EXPECT_TRUE(late.closed_by_peer(1s));
    EXPECT_EQ(zt::read_file(kOut + "/audio.wav").size(), 44u);
}

}  // namespace
