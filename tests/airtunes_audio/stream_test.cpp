// Music end to end: a sender at 192.0.2.20 announces a stream (real RSA-OAEP key), sets it up,
// records, sends artwork and then encrypted ALAC packets; player_sim records what the daemon
// writes into "/tmp/airtunes".
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "support/airtunes_sender.h"
#include "support/box.h"

namespace {

using namespace std::chrono_literals;

std::string recording() {
    std::string wav = zt::read_file(std::string(zt::Box::kSimOut) + "/audio.wav");
    return wav.size() > 44 ? wav.substr(44) : "";
}

// A started stream whose artwork has just made the daemon start the player.
void start_playing(zt::Box& box, zt::AirtunesSender& rtsp) {
    ASSERT_TRUE(box.start());
    rtsp.connect();
    ASSERT_TRUE(rtsp.start_stream());
    ASSERT_EQ(zt::status_code(rtsp.request("SET_PARAMETER", "Content-Type: image/jpeg\r\n",
                                           "\xff\xd8\xff\xd9")), 200);
    ASSERT_TRUE(box.wait_command("start_aod"));
}

TEST(AudioStream, PlaysBitExactRestartsOnRecordAndEndsOnSigterm) {
    zt::Box box;
    zt::AirtunesSender rtsp;
    ASSERT_NO_FATAL_FAILURE(start_playing(box, rtsp));

    // 16 rounds of the vector (5.2 s) at real-time pace; between the halves a retransmission,
    // a duplicate, short and foreign-typed datagrams, and packets from another address.
    const auto frames = zt::load_alac_frames("s16_stereo");
    const std::string pcm = zt::load_alac_pcm("s16_stereo");
    const size_t last = pcm.size() - (frames.size() - 1) * 1408;
    auto pcm_of = [&](size_t i) {
        return pcm.substr(i * 1408, i + 1 < frames.size() ? 1408 : last);
    };
    std::vector<zt::Frame> half;
    std::string half_pcm;
    for (int round = 0; round < 8; ++round) {
        half.insert(half.end(), frames.begin(), frames.end());
        half_pcm += pcm;
    }
    std::string expected = half_pcm;
    zt::RtpSender sender(rtsp.aes_key, rtsp.aes_iv), foreign(rtsp.aes_key, rtsp.aes_iv, "192.0.2.10");
    ASSERT_TRUE(sender.send_frames(half));
    sender.send(sender.packet(frames[3], 1003, 1056, true), 6001);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    sender.send(sender.packet(frames.back(), static_cast<uint16_t>(sender.seq - 1), 0));
    expected += pcm_of(3) + pcm_of(frames.size() - 1);
    for (const zt::Frame& junk :
         {zt::Frame(11, 0x60), zt::Frame{0x80, 0x56, 0, 1, 0x80, 0x60}, zt::Frame(300, 0x7F)})
        sender.send(junk);
    foreign.send(foreign.packet(frames[7], 77, 0));
    ASSERT_TRUE(sender.send_frames(half));
    expected += half_pcm;

    EXPECT_TRUE(zt::wait_until([&] { return recording().size() >= expected.size(); }, 3s));
    const std::string got = recording();
    EXPECT_GE(got.size(), expected.size() * 95 / 100);
    EXPECT_TRUE(expected.ends_with(got)) << got.size() << " of " << expected.size();
    EXPECT_FALSE(box.wait_command("start_aod", 2, 100ms));

    // TEARDOWN while playing stops the player; the next RECORD makes a new pipe and waits
    // for a reader, which never comes (start_aod answered late): SIGTERM still ends it.
    EXPECT_EQ(zt::status_code(rtsp.request("TEARDOWN")), 200);
    EXPECT_TRUE(box.wait_command("stop_aod"));
    struct stat before {
    }, after{};
    ::stat("/tmp/airtunes", &before);
    box.sim("/sim/delay?cmd=start_aod&ms=30000");
    ASSERT_TRUE(rtsp.start_stream());
    EXPECT_TRUE(zt::wait_until(
        [&] { return ::stat("/tmp/airtunes", &after) == 0 && after.st_ino != before.st_ino; }));
    sender.send_frames({frames.begin(), frames.begin() + 20}, 0);
    EXPECT_EQ(box.daemon().stop(SIGTERM, 10s), 0);
}

TEST(AudioStream, AFullPipeHoldsOnlyTheReceiverAndSigtermEndsTheStream) {
    zt::Box box;
    zt::AirtunesSender rtsp;
    ASSERT_NO_FATAL_FAILURE(start_playing(box, rtsp));
    box.sim("/sim/stall?aod=1");
    const auto frames = zt::load_alac_frames("s16_stereo");
    zt::RtpSender sender(rtsp.aes_key, rtsp.aes_iv);
    for (int round = 0; round < 3; ++round) ASSERT_TRUE(sender.send_frames(frames, 4));
    EXPECT_EQ(zt::status_code(rtsp.request("OPTIONS")), 200);
    EXPECT_EQ(box.daemon().stop(SIGTERM, 10s), 0);
    EXPECT_LT(recording().size(), 3 * zt::load_alac_pcm("s16_stereo").size());
}

}  // namespace
