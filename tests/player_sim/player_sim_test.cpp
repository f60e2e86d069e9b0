// player_sim as the daemon sees it: replies and the command log byte for byte, faults on
// demand, a video whose status follows a real fetch and the wall clock, PCM recorded from
// the FIFO, photos, and a clean end on SIGTERM. Every case runs in its own sandbox.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "support/box.h"
#include "support/support.h"

namespace {

using namespace std::chrono_literals;

const std::string kOut = zt::Box::kSimOut;

// Sends one raw GET and returns the whole reply ("" when the service closed silently).
std::string ask(const std::string& target) {
    zt::Client c = zt::Client::connect("127.0.0.1", 8008);
    if (!c.ok() || !c.send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:8008\r\n\r\n"))
        return "<no connection>";
    return c.recv_all(15s);
}

// The text between "<tag>" and the next "<"; "<absent>" when the tag is missing.
std::string field(const std::string& reply, const std::string& tag) {
    size_t p = reply.find("<" + tag + ">");
    if (p == std::string::npos) return "<absent>";
    p += tag.size() + 2;
    return reply.substr(p, reply.find('<', p) - p);
}

std::string return_value(const std::string& target) {
    return field(ask(target), "returnValue");
}

std::map<std::string, std::string> state(const zt::Box& box) {
    std::map<std::string, std::string> out;
    std::istringstream in(box.sim("/sim/state"));
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (eq != std::string::npos) out[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return out;
}

std::string vod_status() {
    return field(ask("/playback?arg0=get_current_vod_info"), "currentStatus");
}
long vod_time() {
    return std::atol(field(ask("/playback?arg0=get_current_vod_info"), "currentTime").c_str());
}
std::string aod_status() {
    return field(ask("/playback?arg0=get_current_aod_info"), "currentStatus");
}

TEST(PlayerSim, AnswersAndLogsEveryCommandAsReceived) {
    zt::Box box;
    ASSERT_TRUE(box.start_player());
    long long before = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
    std::string reply = ask("/system?arg0=set_system_volume&arg1=-15%2E5");
    EXPECT_EQ(zt::status_code(reply), 200);
    EXPECT_EQ(zt::header_value(reply, "Content-Type"), "text/xml");
    EXPECT_EQ(zt::header_value(reply, "Connection"), "close");
    EXPECT_EQ(zt::header_value(reply, "Content-Length"), std::to_string(zt::body_of(reply).size()));
    EXPECT_NE(reply.find("<returnValue>0</returnValue>"), std::string::npos) << reply;

    std::string info = ask("/playback?arg0=get_current_vod_info");
    EXPECT_EQ(field(info, "returnValue"), "0");
    EXPECT_EQ(field(info, "currentStatus"), "stop");
    EXPECT_EQ(field(info, "seekEnable"), "false");
    EXPECT_EQ(field(info, "totalTime"), "0");
    EXPECT_EQ(field(ask("/playback?arg0=get_current_aod_info"), "currentStatus"), "stop");
    EXPECT_EQ(return_value("/playback?arg0=no_such_command"), "-1");
    EXPECT_EQ(return_value("/playback?arg0=set_system_volume&arg1=3"), "-1");  // wrong service
    EXPECT_EQ(return_value("/playback?arg0=set_time_seek_vod&arg1=1:2"), "-1");
    EXPECT_EQ(return_value("/playback?arg0=set_time_seek_vod&arg1=123:04:05"), "0");
    EXPECT_EQ(box.sim("/sim/state").find("volume=-15.5\n") != std::string::npos, true);

    auto cmds = box.commands();
    ASSERT_EQ(cmds.size(), 7u) << "control requests are not player commands";
    EXPECT_EQ(cmds[0].name, "set_system_volume");
    EXPECT_EQ(cmds[0].target, "/system?arg0=set_system_volume&arg1=-15%2E5");
    EXPECT_GE(cmds[0].time_ms, before);
    EXPECT_LE(cmds[0].time_ms, cmds.back().time_ms);
    EXPECT_EQ(cmds[3].name, "no_such_command");
    EXPECT_EQ(cmds[6].target, "/playback?arg0=set_time_seek_vod&arg1=123:04:05");

    // A request that never ends its header block does not hold the service.
    zt::Client idle = zt::Client::connect("127.0.0.1", 8008);
    ASSERT_TRUE(idle.send("GET /playback?arg0=stop_vod HTTP/1.1\r\n"));
    EXPECT_EQ(return_value("/playback?arg0=pause_vod"), "0");
    EXPECT_TRUE(idle.closed_by_peer(15s));
}

TEST(PlayerSim, RefusesClosesAndAnswersLateOnDemand) {
    zt::Box box;
    ASSERT_TRUE(box.start_player({"--refuse", "stop_pod", "--vod-status", "unknown"}));
    EXPECT_EQ(return_value("/playback?arg0=stop_pod"), "-1");
    EXPECT_EQ(return_value("/playback?arg0=stop_pod"), "-1");
    EXPECT_EQ(vod_status(), "unknown");

    box.sim("/sim/refuse?cmd=pause_vod&count=1");
    EXPECT_EQ(return_value("/playback?arg0=pause_vod"), "-1");
    EXPECT_EQ(return_value("/playback?arg0=pause_vod"), "0");

    box.sim("/sim/close?cmd=resume_vod");
    EXPECT_EQ(ask("/playback?arg0=resume_vod"), "");
    EXPECT_EQ(ask("/playback?arg0=resume_vod"), "");
    box.sim("/sim/close?cmd=resume_vod&count=0");
    EXPECT_EQ(return_value("/playback?arg0=resume_vod"), "0");

    // A late answer holds up only its own connection.
    box.sim("/sim/delay?cmd=get_current_aod_info&ms=4000&count=1");
    auto t0 = std::chrono::steady_clock::now();
    zt::Client late = zt::Client::connect("127.0.0.1", 8008);
    ASSERT_TRUE(late.send("GET /playback?arg0=get_current_aod_info HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(box.wait_command("get_current_aod_info"));
    EXPECT_EQ(return_value("/playback?arg0=stop_vod"), "0");
    EXPECT_EQ(late.recv_some(0ms), "");
    std::string reply = late.recv_all(15s);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 4000ms);
    EXPECT_EQ(field(reply, "currentStatus"), "stop");

    box.sim("/sim/reset");
    EXPECT_EQ(return_value("/playback?arg0=stop_pod"), "0");
    EXPECT_EQ(vod_status(), "stop");
    EXPECT_EQ(zt::status_code(ask("/sim/nonsense")), 400);
}

// A media server on the sender's address that answers one GET, its body held back until
// release() so the test can see the player buffering.
class MediaServer {
   public:
    bool start() {
        fd_ = zt::listen_on(std::getenv("ZOR_SENDER_IP"), 0, &port_);
        if (fd_ < 0) return false;
        thread_ = std::thread([this] { serve(); });
        return true;
    }
    ~MediaServer() {
        release();
        if (thread_.joinable()) thread_.join();
        if (fd_ >= 0) ::close(fd_);
    }
    std::string host_port() const {
        return std::string(std::getenv("ZOR_SENDER_IP")) + ":" + std::to_string(port_);
    }
    std::string url() const { return "http://" + host_port() + "/media/movie.mp4"; }
    void release() { released_ = true; }
    std::string request() const { return zt::read_file("/tmp/media_request"); }

   private:
    void serve() {
        zt::Client c(zt::accept_one(fd_, 20s));
        if (!c.ok()) return;
        std::string req = c.recv_message(10s);
        std::FILE* f = std::fopen("/tmp/media_request", "w");
        if (f) std::fputs(req.c_str(), f), std::fclose(f);
        zt::wait_until([this] { return released_.load(); }, 30s);
        std::string body(100000, 'm');
        c.send("HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n\r\n" + body);
    }
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> released_{false};
    std::thread thread_;
};

TEST(PlayerSim, VideoBuffersUntilMediaArrivesThenPlaysByTheClock) {
    zt::Box box;
    ASSERT_TRUE(box.start_player({"--duration", "100"}));
    MediaServer media;
    ASSERT_TRUE(media.start());
    // The URL arrives percent-encoded, every byte as the daemon writes it.
    std::string encoded;
    for (unsigned char ch : media.url()) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%%%02X", ch);
        encoded += std::isalnum(ch) ? std::string(1, static_cast<char>(ch)) : std::string(hex);
    }
    EXPECT_EQ(return_value("/playback?arg0=start_vod&arg1=AirPlayVideo&arg2=" + encoded +
                           "&arg3=show&arg4=00.500000"),
              "0");
    ASSERT_TRUE(zt::wait_until([&] { return !media.request().empty(); }, 10s));
    EXPECT_EQ(media.request().substr(0, 34), "GET /media/movie.mp4 HTTP/1.1\r\nHos");
    EXPECT_EQ(zt::header_value(media.request(), "Host"), media.host_port());
    EXPECT_EQ(vod_status(), "buffering");
    EXPECT_EQ(vod_time(), 50);

    media.release();
    ASSERT_TRUE(zt::wait_until([] { return vod_status() == "play"; }, 10s));
    std::string info = ask("/playback?arg0=get_current_vod_info");
    EXPECT_EQ(field(info, "totalTime"), "100");
    EXPECT_EQ(field(info, "seekEnable"), "true");
    EXPECT_TRUE(zt::wait_until([] { return vod_time() >= 52; }, 10s));
    EXPECT_TRUE(zt::wait_until([&] { return state(box)["vod_bytes"] == "100000"; }));

    EXPECT_EQ(return_value("/playback?arg0=pause_vod"), "0");
    EXPECT_EQ(return_value("/playback?arg0=set_time_seek_vod&arg1=00:01:05"), "0");
    EXPECT_EQ(vod_status(), "pause");
    std::this_thread::sleep_for(1200ms);  // a paused clock must not move meanwhile
    EXPECT_EQ(vod_time(), 65);
    EXPECT_EQ(return_value("/playback?arg0=resume_vod"), "0");
    EXPECT_TRUE(zt::wait_until([] { return vod_time() >= 66; }, 10s));
    EXPECT_EQ(vod_status(), "play");

    EXPECT_EQ(return_value("/playback?arg0=stop_vod"), "0");
    EXPECT_EQ(vod_status(), "stop");
    EXPECT_EQ(vod_time(), 0);

    // A fetch that fails before any media leaves the player stopped.
    int closed_port = 0;
    int fd = zt::listen_on(std::getenv("ZOR_SENDER_IP"), 0, &closed_port);
    ::close(fd);
    std::string dead = "http%3A%2F%2F" + std::string(std::getenv("ZOR_SENDER_IP")) + "%3A" +
                       std::to_string(closed_port) + "%2Fx";
    EXPECT_EQ(return_value("/playback?arg0=start_vod&arg1=AirPlayVideo&arg2=" + dead +
                           "&arg3=show&arg4=00.000000"),
              "0");
    EXPECT_TRUE(zt::wait_until([] { return vod_status() == "stop"; }, 15s));
}

// A fresh PCM FIFO where the daemon would create it.
bool make_fifo() {
    ::unlink("/tmp/airtunes");
    return ::mkfifo("/tmp/airtunes", 0666) == 0;
}

// Writes all of data into fd (a FIFO), false on an error.
bool write_fd(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

uint32_t le32(const std::string& s, size_t at) {
    return static_cast<uint8_t>(s[at]) | static_cast<uint8_t>(s[at + 1]) << 8 |
           static_cast<uint8_t>(s[at + 2]) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(s[at + 3])) << 24;
}

TEST(PlayerSim, AudioIsReadFromTheFifoIntoAWavFile) {
    zt::Box box;
    ASSERT_TRUE(box.start_player());
    ASSERT_TRUE(make_fifo());
    EXPECT_EQ(return_value("/playback?arg0=start_aod&arg1=AirPlayMusic&arg2=airtunes://"
                           "AirPlayMusic.airtunes&arg3=marquee&arg4=disable"),
              "0");
    EXPECT_EQ(aod_status(), "buffering");
    // The player opens the read end, so a writer's open completes.
    int fd = -1;
    ASSERT_TRUE(zt::wait_until([&] {
        fd = ::open("/tmp/airtunes", O_WRONLY | O_NONBLOCK);
        return fd >= 0;
    }));
    ::fcntl(fd, F_SETFL, 0);
    EXPECT_EQ(aod_status(), "buffering");

    std::string pcm;
    for (int i = 0; i < 44100; ++i)
        pcm += std::string{char(i), char(i >> 8), char(~i), char(i >> 3)};
    ASSERT_TRUE(write_fd(fd, pcm));
    EXPECT_TRUE(zt::wait_until([] { return aod_status() == "play"; }));
    ::close(fd);
    EXPECT_TRUE(zt::wait_until([] { return aod_status() == "stop"; }));

    std::string wav = zt::read_file(kOut + "/audio.wav");
    ASSERT_EQ(wav.size(), 44 + pcm.size());
    EXPECT_EQ(wav.substr(0, 4), "RIFF");
    EXPECT_EQ(le32(wav, 4), 36 + pcm.size());
    EXPECT_EQ(wav.substr(8, 8), "WAVEfmt ");
    EXPECT_EQ(le32(wav, 20), 0x00020001u);  // PCM, two channels
    EXPECT_EQ(le32(wav, 24), 44100u);
    EXPECT_EQ(le32(wav, 28), 44100u * 4);
    EXPECT_EQ(le32(wav, 32), 0x00100004u);  // block align 4, 16 bits
    EXPECT_EQ(wav.substr(36, 4), "data");
    EXPECT_EQ(le32(wav, 40), pcm.size());
    EXPECT_TRUE(wav.substr(44) == pcm);
    EXPECT_EQ(state(box)["aod_bytes"], std::to_string(pcm.size()));

    // stop_aod closes the read end under a writer that is still there.
    EXPECT_EQ(return_value("/playback?arg0=start_aod"), "0");
    ASSERT_TRUE(zt::wait_until([&] {
        fd = ::open("/tmp/airtunes", O_WRONLY | O_NONBLOCK);
        return fd >= 0;
    }));
    ASSERT_TRUE(write_fd(fd, pcm.substr(0, 4000)));
    EXPECT_TRUE(zt::wait_until([] { return aod_status() == "play"; }));
    EXPECT_EQ(return_value("/playback?arg0=stop_aod"), "0");
    EXPECT_EQ(aod_status(), "stop");
    signal(SIGPIPE, SIG_IGN);
    EXPECT_TRUE(zt::wait_until([&] { return ::write(fd, "xxxx", 4) < 0; }));
    ::close(fd);
    EXPECT_EQ(le32(zt::read_file(kOut + "/audio.wav"), 40), 4000u);
}

TEST(PlayerSim, PhotosAreShownAndHidden) {
    zt::Box box;
    ASSERT_TRUE(box.start_player());
    const std::string kShow =
        "/playback?arg0=insert_pod_queue&arg1=AirPlayPhoto&arg2=file:///tmp/airplay_photo.jpg"
        "&arg3=&arg4=rot0&arg5=show";
    EXPECT_EQ(return_value(kShow), "-1") << "no photo file yet";
    std::string jpeg = "\xff\xd8\xff\xe0 not really a jpeg \xff\xd9";
    std::FILE* f = std::fopen("/tmp/airplay_photo.jpg", "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(jpeg.data(), 1, jpeg.size(), f);
    std::fclose(f);
    EXPECT_EQ(return_value(kShow), "0");
    EXPECT_EQ(zt::read_file(kOut + "/photo-1.jpg"), jpeg);
    EXPECT_EQ(state(box)["photo"], "shown");
    EXPECT_EQ(return_value("/playback?arg0=stop_pod"), "0");
    EXPECT_EQ(state(box)["photo"], "hidden");
    EXPECT_EQ(return_value(kShow), "0");
    EXPECT_EQ(state(box)["photos"], "2");
    EXPECT_TRUE(zt::file_exists(kOut + "/photo-2.jpg"));
}

TEST(PlayerSim, SigtermEndsItWhileAReaderAndALateAnswerWait) {
    zt::Process sim;
    ASSERT_TRUE(sim.start(
        {zt::build_dir() + "/player_sim", "--out", kOut, "--delay", "get_current_vod_info=60000"},
        "/tmp/player_sim.log"));
    ASSERT_TRUE(zt::wait_until([] { return zt::Client::connect("127.0.0.1", 8008, {}).ok(); }));
    ASSERT_TRUE(make_fifo());
    EXPECT_EQ(return_value("/playback?arg0=start_aod"), "0");
    zt::Client late = zt::Client::connect("127.0.0.1", 8008);
    ASSERT_TRUE(late.send("GET /playback?arg0=get_current_vod_info HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(zt::wait_until([] {
        return zt::read_file(kOut + "/commands.log").find("get_current_vod_info") !=
               std::string::npos;
    }));
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(sim.stop(SIGTERM, 10s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
    EXPECT_TRUE(late.closed_by_peer(1s));
    EXPECT_EQ(zt::read_file(kOut + "/audio.wav").size(), 44u);
}

}  // namespace
