// A sender playing videos on the real daemon: the start commands player_sim gets for text and
// binary bodies, bodies refused or survived, and the commands the seek thread coalesces.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/airplay_sender.h"
#include "support/media_server.h"

namespace {

using Names = std::vector<std::string>;
using zt::kBinary;
using zt::kText;
using zt::load_bplist;
using zt::VideoSender;

const std::string kStart = "/playback?arg0=start_vod&arg1=AirPlayVideo&arg2=";
const std::string kUrl = "http%3A%2F%2F192%2E0%2E2%2E20%3A8080%2Fmedia%2Fmovie+one%2Emp4";
const std::string kVia = "http%3A%2F%2F127%2E0%2E0%2E1%3A4000%2Fproxy%3Furl%3D";
const std::string kProxied = kVia + "http%3A%2F%2F192%2E0%2E2%2E20%3A8080%2F";
const std::string kProxy7000 = "http://127.0.0.1:7000/proxy?";
const std::string kShow = "&arg3=show&arg4=";

long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// The number of threads the process has now (0 when it is gone).
size_t thread_count(pid_t pid) {
    std::string status = zt::read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("\nThreads:");
    return at == std::string::npos ? 0 : std::strtoul(status.c_str() + at + 9, nullptr, 10);
}

class VideoPlay : public ::testing::Test {
   protected:
    void SetUp() override { ASSERT_TRUE(media_.start(std::string(4096, 'v'))); }
    // A video plays, and the monitor has seen it: scrubs are taken from here on.
    bool playing() {
        return box_.start({"--duration", "7200"}) && sender_.new_session() &&
               sender_.open_reverse() &&
               sender_.play_status(kBinary, load_bplist("simple")) == 200 &&
               sender_.wait_event("playing");
    }
    zt::MediaFileServer media_;
    zt::Box box_;
    VideoSender sender_;
};

TEST_F(VideoPlay, BodiesToStartCommands) {
    const std::string path(1500, 'p'), simple = load_bplist("simple"), zero = kShow + "00.000000";
    const std::string location = "Content-Location: http://192.0.2.20:8080/";
    const struct {
        const char* type;
        std::string body;
        std::string start;   // the start command after its fixed part, "" for none
        int status = 200;    // -1: any
        bool split = false;  // the body in a later segment than the head
        long length = -1;    // a Content-Length of its own (the sender then ends its side)
    } cases[] = {
        // Binary bodies start the bare URL, with the position.
        {kBinary, simple, kUrl + kShow + "00.250000"},
        {kBinary, load_bplist("with_false"), kUrl + kShow + "00.000000"},
        // Read whole after their header (8.5 KB: more than is read with the header block).
        {kBinary, load_bplist("large"), kUrl + kShow + "00.500000", 200, true},
        // Text bodies go through the proxy.
        {kText,
         "X-Padding: " + std::string(6000, 'x') +
             "\nStart-Position: 0.75\nContent-Location: http://192.0.2.20:8080/b\n",
         kProxied + "b" + kShow + "00.750000", 200, true},
        // All but letters and digits is escaped, a blank as "+", a CR before the LF too; a
        // negative position starts at 0.
        {kText, "Start-Position: -3\r\n" + location + "a b+c_d-e%F@[`{\xe9\x7f.mp4\r\n",
         kProxied + "a+b%2Bc%5Fd%2De%25F%40%5B%60%7B%E9%7F%2Emp4%0D" + zero},
        // Port 7000's proxy prefixes pass verbatim; almost the prefix is ordinary text.
        {kText, "Content-Location: " + kProxy7000 + "url=a:b\n",
         kVia + kProxy7000 + "url=a%3Ab" + zero},
        {kText, "Content-Location: " + kProxy7000 + "useragent=Quicktime&url=a.b\n",
         kVia + kProxy7000 + "useragent=Quicktime&url=a%2Eb" + zero},
        {kText, "Content-Location: http://127.0.0.1:7001/proxy?url=\n",
         kVia + "http%3A%2F%2F127%2E0%2E0%2E1%3A7001%2Fproxy%3Furl%3D" + zero},
        // A location without a line feed runs to the end of the body.
        {kText, location + "b.mp4", kProxied + "b%2Emp4" + zero},
        {kText, location + path + "\n", kProxied + path + zero},  // far beyond 256 bytes
        // Refused: neither form, cut short, too large (refused unread: a read would wait, the
        // sender keeps its side open), a URL that does not fit the start command.
        {"application/octet-stream", "", "", 500},
        {kText, location + "a\n", "", -1, false, static_cast<long>(location.size()) + 52},
        {kBinary, simple, "", 500, false, static_cast<long>(simple.size()) + 50},
        {kText, "", "", 500, false, 70000},
        {kText, location + std::string(2000, '/') + "\n", "", 500},
        // Nothing to play, found nowhere or malformed, yet 200.
        {kBinary, "", ""},
        {kBinary, load_bplist("no_location"), ""},
        {kBinary, simple.substr(0, 39), ""},
        {kBinary, load_bplist("deep_too_far"), ""},
        {kText, "Start-Position: 0.3\n", ""},
    };
    ASSERT_TRUE(box_.start());
    ASSERT_TRUE(sender_.open_reverse());
    size_t n = 0;
    std::string last;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body.substr(0, 60));
        ASSERT_TRUE(sender_.new_session());
        int status = zt::status_code(sender_.play(c.type, c.body, c.split, c.length));
        EXPECT_TRUE(c.status < 0 || status == c.status) << status;
        n += !c.start.empty();
        last = c.start.empty() ? last : kStart + c.start;
        ASSERT_TRUE(box_.wait_command("start_vod", n));
        EXPECT_EQ(box_.count("start_vod"), n);
        EXPECT_EQ(zt::commands_named(box_, "start_vod").back().target, last);
        EXPECT_TRUE(n != 1 || sender_.wait_event("playing")) << box_.daemon_log();
    }
    for (const char* line : {"Invalid socket read", "does not fit the start command",
                             "malformed body (nesting deeper than 32)", "fposition: 0.300000"})
        EXPECT_TRUE(box_.wait_log(line)) << line;
    // The player refuses a start: 500, and the next start goes through.
    box_.sim("/sim/refuse?cmd=start_vod&count=1");
    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(sender_.play_status(kBinary, simple), 500);
    ASSERT_TRUE(sender_.new_session());
    EXPECT_EQ(sender_.play_status(kBinary, simple), 200);
    EXPECT_EQ(box_.count("start_vod"), n + 2);
}

TEST_F(VideoPlay, RequestsToPlayerCommands) {
    ASSERT_TRUE(playing()) << box_.daemon_log();
    box_.sim("/sim/force?vod=play");  // the player plays on whatever it is told
    const std::string r0 = "/rate?value=0.000000", r1 = "/rate?value=1.000000";
    const std::string seek = "set_time_seek_vod&arg1=", at = "/scrub?position=";
    const struct {
        Names requests;
        std::string sent;   // the one command's arguments, "" for none
        bool held = false;  // a pause is held back two seconds by design
    } cases[] = {
        {{r0}, "pause_vod", true},
        {{r0, r1}, "resume_vod"},  // a resume within the pause's wait replaces it
        {{r1}, "resume_vod"},      // with nothing to coalesce it goes out at once
        {{r0, at + "75.500000", r1}, seek + "00:01:15"},
        // A scrub during a pause waits a second more; the last target wins.
        {{r0, at + "100.000000", at + "3725.200000"}, seek + "01:02:05", true},
        // A scrub alone seeks at once. Positions truncate toward zero, hours take the digits
        // they need, negatives count as 0, numbers beyond the int range are clamped.
        {{at + "12.900000"}, seek + "00:00:12"},
        {{at + "360059"}, seek + "100:00:59"},
        {{at + "-5"}, seek + "00:00:00"},
        {{at + "1e300"}, seek + "596523:14:07"},
        {{at + "nan"}, seek + "00:00:00"},
        // Requests without their value fail and close their connection; nothing is sent.
        {{"/scrub", "/rate"}, ""},
    };
    Names expected{"start_vod"};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.requests.back());
        size_t before = zt::commands_named(box_).size();
        for (const std::string& r : c.requests)
            EXPECT_EQ(VideoSender::post(r), r.find('?') == std::string::npos ? 500 : 200) << r;
        long long last = now_ms();
        if (c.sent.empty()) continue;
        ASSERT_TRUE(zt::wait_until([&] { return zt::commands_named(box_).size() > before; }));
        zt::PlayerCommand sent = zt::commands_named(box_)[before];
        expected.push_back(sent.name);
        EXPECT_EQ(sent.target, "/playback?arg0=" + c.sent);
        // A command meant to go at once may reach the player before the reply reaches us.
        EXPECT_TRUE(!c.held || sent.time_ms - last >= 950) << sent.time_ms - last;
    }
    // After the seek thread's longest wait any command held back or sent besides is there.
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(zt::control_names(box_), expected);
    EXPECT_TRUE(box_.wait_log("\nsending seek singular command\n"));

    // A POST /play with only a start position seeks there once the player has settled.
    ASSERT_TRUE(sender_.new_session());
    long long t0 = now_ms();
    EXPECT_EQ(sender_.play_status(kText, "Start-Position: 0.3\n"), 200);
    size_t seeks = zt::commands_named(box_, "set_time_seek_vod").size();
    ASSERT_TRUE(box_.wait_command("set_time_seek_vod", seeks + 1, std::chrono::seconds(20)));
    zt::PlayerCommand sought = zt::commands_named(box_, "set_time_seek_vod").back();
    EXPECT_EQ(sought.target, "/playback?arg0=" + seek + "00:00:30");
    EXPECT_GE(sought.time_ms - t0, 2900);  // the monitor lets the player settle for 3 s

    // A scrub while the player shows a pause sends nothing.
    box_.sim("/sim/force?vod=pause");
    ASSERT_TRUE(sender_.wait_event("paused"));
    size_t commands = zt::commands_named(box_).size();
    EXPECT_EQ(VideoSender::post("/scrub?position=30.000000"), 200);
    // POST /stop goes to the player (500 when it refuses), and the monitor reports it.
    box_.sim("/sim/refuse?cmd=stop_vod&count=1");
    EXPECT_EQ(VideoSender::post("/stop"), 500);
    box_.sim("/sim/force?vod=none");
    EXPECT_EQ(VideoSender::post("/stop"), 200);
    EXPECT_TRUE(sender_.wait_event("stopped"));
    Names after = zt::control_names(box_);
    EXPECT_EQ(Names(after.begin() + commands, after.end()), (Names{"stop_vod", "stop_vod"}));
}

TEST_F(VideoPlay, ABurstOfRatesAgainstALatePlayerKeepsOneSeekThread) {
    ASSERT_TRUE(playing()) << box_.daemon_log();
    box_.sim("/sim/delay?cmd=pause_vod&ms=1500");
    box_.sim("/sim/delay?cmd=resume_vod&ms=1500");
    pid_t pid = box_.daemon().pid();
    size_t idle = thread_count(pid);
    std::atomic<bool> done{false};
    std::atomic<size_t> most{idle};
    std::thread watch([&] {
        for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(5)))
            most = std::max<size_t>(most, thread_count(pid));
    });
    // Alternating rates while the thread waits for the player; the last one is a pause.
    for (int i = 0; i < 21; ++i) {
        EXPECT_EQ(VideoSender::post(i % 2 ? "/rate?value=1.000000" : "/rate?value=0.000000"), 200);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    long long sent = now_ms();
    EXPECT_TRUE(
        zt::wait_until([&] { return thread_count(pid) == idle; }, std::chrono::seconds(30)));
    done = true;
    watch.join();
    EXPECT_LE(most, idle + 1) << "more than one seek thread";
    std::vector<zt::PlayerCommand> commands = zt::commands_named(box_);
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(commands.back().name, "pause_vod");
    EXPECT_GT(commands.back().time_ms, sent);
}

}  // namespace
