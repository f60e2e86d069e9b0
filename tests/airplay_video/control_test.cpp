// Rate, scrub and stop while a video plays: the player commands that the seek thread
// coalesces, as player_sim logged them with their times, and the deferred start seek.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "airplay_video/bplist_bodies.h"
#include "airplay_video/video_sender.h"

namespace {

using Names = std::vector<std::string>;

const std::string kSeek = "/playback?arg0=set_time_seek_vod&arg1=";

class VideoControl : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_TRUE(media_.start());
        ASSERT_TRUE(box_.start({"--duration", "7200"}));  // room for seeks past the hour
        ASSERT_TRUE(sender_.new_session());
        ASSERT_TRUE(sender_.open_reverse());
        ASSERT_EQ(zt::status_code(sender_.play_binary(zt::as_text(zt::load_bplist("simple")))),
                  200);
        // The monitor has seen the video play; scrubs are taken from here on.
        ASSERT_TRUE(sender_.wait_event("playing")) << box_.daemon_log();
    }
    void TearDown() override { zt::expect_no_sanitizer_report(box_.daemon_log()); }

    // The first command with this name (time 0 and empty when there is none).
    zt::PlayerCommand first(const std::string& name) const {
        for (auto& c : box_.commands())
            if (c.name == name) return c;
        return {};
    }
    size_t count(const std::string& name) const {
        size_t n = 0;
        for (auto& c : box_.commands()) n += c.name == name;
        return n;
    }
    // Lets the longest wait of the seek thread (two seconds after t0) run out, so that a
    // command it wrongly held back would have been sent by now.
    static void outlast_wait(long long t0) {
        zt::wait_until([&] { return zt::now_ms() - t0 > 2500; });
    }
    // Ends the scene with POST /stop, so that every command sent before it is in the log.
    void stop() {
        EXPECT_EQ(sender_.post("/stop"), 200);
        EXPECT_TRUE(box_.wait_command("stop_vod"));
    }

    zt::MediaServer media_;
    zt::Box box_;
    zt::VideoSender sender_;
};

TEST_F(VideoControl, PauseIsSentOnceOneToTwoSecondsLater) {
    long long t0 = zt::now_ms();
    EXPECT_EQ(sender_.post("/rate?value=0.000000"), 200);
    ASSERT_TRUE(box_.wait_command("pause_vod"));
    long long delay = first("pause_vod").time_ms - t0;
    EXPECT_GE(delay, 950);
    EXPECT_LE(delay, 6000);  // two seconds by design; the rest is slack for a slow machine
    EXPECT_TRUE(sender_.wait_event("paused"));
    stop();
    EXPECT_EQ(zt::control_names(box_), (Names{"start_vod", "pause_vod", "stop_vod"}));
}

TEST_F(VideoControl, ResumeWithinThePauseWaitReplacesThePause) {
    long long t0 = zt::now_ms();
    EXPECT_EQ(sender_.post("/rate?value=0.000000"), 200);
    EXPECT_EQ(sender_.post("/rate?value=1.000000"), 200);
    ASSERT_TRUE(box_.wait_command("resume_vod"));
    outlast_wait(t0);
    // A resume with nothing to coalesce goes out by itself, once.
    EXPECT_EQ(sender_.post("/rate?value=1.000000"), 200);
    ASSERT_TRUE(box_.wait_command("resume_vod", 2));
    stop();
    EXPECT_EQ(zt::control_names(box_),
              (Names{"start_vod", "resume_vod", "resume_vod", "stop_vod"}));
}

TEST_F(VideoControl, PauseScrubResumeSendsOnlyTheSeek) {
    long long t0 = zt::now_ms();
    EXPECT_EQ(sender_.post("/rate?value=0.000000"), 200);
    EXPECT_EQ(sender_.post("/scrub?position=75.500000"), 200);
    EXPECT_EQ(sender_.post("/rate?value=1.000000"), 200);
    ASSERT_TRUE(box_.wait_command("set_time_seek_vod"));
    EXPECT_EQ(first("set_time_seek_vod").target, kSeek + "00:01:15");
    outlast_wait(t0);
    stop();
    EXPECT_EQ(zt::control_names(box_), (Names{"start_vod", "set_time_seek_vod", "stop_vod"}));
}

TEST_F(VideoControl, ScrubDuringAPauseIsSentAfterASecondWait) {
    EXPECT_EQ(sender_.post("/rate?value=0.000000"), 200);
    EXPECT_EQ(sender_.post("/scrub?position=100.000000"), 200);
    long long t1 = zt::now_ms();
    EXPECT_EQ(sender_.post("/scrub?position=3725.200000"), 200);  // the last target wins
    ASSERT_TRUE(box_.wait_command("set_time_seek_vod"));
    zt::PlayerCommand seek = first("set_time_seek_vod");
    EXPECT_EQ(seek.target, kSeek + "01:02:05");
    EXPECT_GE(seek.time_ms - t1, 950);
    outlast_wait(t1);
    stop();
    EXPECT_EQ(zt::control_names(box_), (Names{"start_vod", "set_time_seek_vod", "stop_vod"}));
}

TEST_F(VideoControl, ScrubAloneSeeksAtOnce) {
    // Positions truncate toward zero; hours of 100 and more take the digits they need,
    // negatives count as 0, and numbers beyond the int range are clamped to it.
    const std::pair<const char*, const char*> cases[] = {{"12.900000", "00:00:12"},
                                                         {"360059", "100:00:59"},
                                                         {"-5", "00:00:00"},
                                                         {"1e300", "596523:14:07"},
                                                         {"nan", "00:00:00"}};
    size_t n = 0;
    for (auto [position, text] : cases) {
        EXPECT_EQ(sender_.post(std::string("/scrub?position=") + position), 200);
        ASSERT_TRUE(box_.wait_command("set_time_seek_vod", ++n)) << position;
        EXPECT_EQ(zt::control_commands(box_).back().target, kSeek + text) << position;
    }
    EXPECT_TRUE(box_.wait_log("\nsending seek singular command\n"));
    // Requests without their value fail and close their connection; nothing is sent.
    EXPECT_EQ(sender_.post("/scrub"), 500);
    EXPECT_EQ(sender_.post("/rate"), 500);
    stop();
    EXPECT_EQ(count("set_time_seek_vod"), n);
}

TEST_F(VideoControl, ABurstOfRatesAgainstALatePlayerKeepsOneSeekThread) {
    box_.sim("/sim/delay?cmd=pause_vod&ms=1500");
    box_.sim("/sim/delay?cmd=resume_vod&ms=1500");
    pid_t pid = box_.daemon().pid();
    size_t idle = zt::thread_count(pid);
    std::atomic<bool> done{false};
    std::atomic<size_t> most{idle};
    std::thread watch([&] {
        while (!done) {
            most = std::max<size_t>(most, zt::thread_count(pid));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    // Alternating rates while the thread waits for the player; the last one is a pause.
    for (int i = 0; i < 21; ++i) {
        EXPECT_EQ(sender_.post(i % 2 ? "/rate?value=1.000000" : "/rate?value=0.000000"), 200);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    long long sent = zt::now_ms();
    EXPECT_TRUE(
        zt::wait_until([&] { return zt::thread_count(pid) == idle; }, std::chrono::seconds(30)));
    done = true;
    watch.join();
    EXPECT_LE(most, idle + 1) << "more than one seek thread";
    std::vector<zt::PlayerCommand> commands = zt::control_commands(box_);
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(commands.back().name, "pause_vod");
    EXPECT_GT(commands.back().time_ms, sent);
    stop();
}

TEST_F(VideoControl, ScrubWhilePausedSendsNothing) {
    box_.sim("/sim/force?vod=pause");
    ASSERT_TRUE(sender_.wait_event("paused"));
    EXPECT_EQ(sender_.post("/scrub?position=30.000000"), 200);
    stop();
    EXPECT_EQ(zt::control_names(box_), (Names{"start_vod", "stop_vod"}));
}

TEST_F(VideoControl, StopGoesToThePlayerAndTheMonitorReportsIt) {
    box_.sim("/sim/refuse?cmd=stop_vod&count=1");
    EXPECT_EQ(sender_.post("/stop"), 500);
    EXPECT_EQ(sender_.post("/stop"), 200);
    EXPECT_TRUE(box_.wait_command("stop_vod", 2));
    EXPECT_TRUE(sender_.wait_event("stopped"));
    EXPECT_EQ(zt::control_names(box_), (Names{"start_vod", "stop_vod", "stop_vod"}));
}

TEST_F(VideoControl, PlayWithOnlyAStartPositionSeeksThere) {
    ASSERT_TRUE(sender_.new_session());
    long long t0 = zt::now_ms();
    EXPECT_EQ(zt::status_code(sender_.play_text("Start-Position: 0.3\n")), 200);
    ASSERT_TRUE(box_.wait_command("set_time_seek_vod", 1, std::chrono::seconds(20)));
    zt::PlayerCommand seek = first("set_time_seek_vod");
    EXPECT_EQ(seek.target, kSeek + "00:00:30");
    EXPECT_GE(seek.time_ms - t0, 2900);  // the monitor lets the player settle for 3 s
    stop();
    EXPECT_EQ(zt::control_names(box_), (Names{"start_vod", "set_time_seek_vod", "stop_vod"}));
}

}  // namespace
