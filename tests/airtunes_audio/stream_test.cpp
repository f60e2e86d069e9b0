// Music end to end: a sender at 192.0.2.20 announces a stream (real RSA-OAEP key), sets it up,
// records, sends artwork and then encrypted ALAC packets; player_sim records what the daemon
// writes into "/tmp/airtunes".
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "support/box.h"
#include "support/rtp_sender.h"

namespace {

using namespace std::chrono_literals;

const std::array<uint8_t, 16> kKey = {0x3b, 0x11, 0xa5, 0x60, 0x0f, 0x9e, 0x42, 0x77,
                                      0x18, 0xc3, 0x2d, 0x84, 0x5a, 0xe6, 0x01, 0xbf};
const std::array<uint8_t, 16> kIv = {0x44, 0x0b, 0x9d, 0x21, 0x6e, 0xf0, 0x35, 0x8a,
                                     0xc7, 0x12, 0x5f, 0xa9, 0x03, 0x7c, 0xe8, 0x56};

// Base64 of bytes, RSA-OAEP-encrypted with the box's public key first when asked.
std::string base64(const std::array<uint8_t, 16>& bytes, bool rsa) {
    std::FILE* f = std::fopen("/tmp/stream_key", "wb");
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    std::string cmd = rsa ? "openssl pkeyutl -encrypt -pubin -inkey \"$ZOR_RSA_PUBKEY\" -pkeyopt "
                            "rsa_padding_mode:oaep -in /tmp/stream_key | base64 -w0"
                          : "base64 -w0 /tmp/stream_key";
    std::string out(1024, '\0');
    std::FILE* p = popen(cmd.c_str(), "r");
    out.resize(std::fread(out.data(), 1, out.size(), p));
    pclose(p);
    return out;
}

// The sender's RTSP connection, from the sender's address.
struct Rtsp {
    zt::Client c;
    int cseq = 0;
    Rtsp() : c(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in from{AF_INET, 0, {}, {}}, to{AF_INET, htons(5000), {}, {}};
        inet_pton(AF_INET, "192.0.2.20", &from.sin_addr);
        inet_pton(AF_INET, "192.0.2.10", &to.sin_addr);
        ::bind(c.fd(), reinterpret_cast<sockaddr*>(&from), sizeof(from));
        ::connect(c.fd(), reinterpret_cast<sockaddr*>(&to), sizeof(to));
    }
    int call(const std::string& method, const std::string& headers, const std::string& body = "") {
        c.send(method + " rtsp://192.0.2.10/4242 RTSP/1.0\r\nCSeq: " + std::to_string(++cseq) +
               "\r\nX-Apple-Device-ID: 0x5A4F52000002\r\n" + headers +
               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
        return zt::status_code(c.recv_message(std::chrono::seconds(8)));
    }
    // ANNOUNCE, SETUP (control port 6001), RECORD; false when one is not answered 200.
    bool start_stream() {
        const std::string sdp =
            "v=0\r\no=iTunes 1 0 IN IP4 192.0.2.20\r\ns=iTunes\r\nc=IN IP4 192.0.2.10\r\nt=0 0\r\n"
            "m=audio 0 RTP/AVP 96\r\na=rtpmap:96 AppleLossless\r\n"
            "a=fmtp:96 352 0 16 40 10 14 2 255 0 0 44100\r\na=rsaaeskey:" +
            base64(kKey, true) + "\r\na=aesiv:" + base64(kIv, false) + "\r\n";
        return call("ANNOUNCE", "Content-Type: application/sdp\r\n", sdp) == 200 &&
               call("SETUP",
                    "Transport: RTP/AVP/UDP;unicast;mode=record;control_port=6001;"
                    "timing_port=6002\r\n") == 200 &&
               call("RECORD", "Range: npt=0-\r\nRTP-Info: seq=1000;rtptime=0\r\n") == 200;
    }
};

std::string recording() {
    std::string wav = zt::read_file(std::string(zt::Box::kSimOut) + "/audio.wav");
    return wav.size() > 44 ? wav.substr(44) : "";
}

TEST(AudioStream, PlaysBitExactRestartsOnRecordAndEndsOnSigterm) {
    zt::Box box;
    ASSERT_TRUE(box.start());
    Rtsp rtsp;
    if (!rtsp.start_stream()) GTEST_SKIP() << "the RTSP service does not set up streams yet";
    ASSERT_EQ(rtsp.call("SET_PARAMETER", "Content-Type: image/jpeg\r\n", "\xff\xd8\xff\xd9"), 200);
    ASSERT_TRUE(box.wait_command("start_aod"));

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
    zt::RtpSender sender(kKey, kIv), foreign(kKey, kIv, "192.0.2.10");
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
    EXPECT_EQ(rtsp.call("TEARDOWN", ""), 200);
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
    ASSERT_TRUE(box.start());
    Rtsp rtsp;
    if (!rtsp.start_stream()) GTEST_SKIP() << "the RTSP service does not set up streams yet";
    ASSERT_EQ(rtsp.call("SET_PARAMETER", "Content-Type: image/jpeg\r\n", "\xff\xd8\xff\xd9"), 200);
    ASSERT_TRUE(box.wait_command("start_aod"));
    box.sim("/sim/stall?aod=1");
    const auto frames = zt::load_alac_frames("s16_stereo");
    zt::RtpSender sender(kKey, kIv);
    for (int round = 0; round < 3; ++round) ASSERT_TRUE(sender.send_frames(frames, 4));
    EXPECT_EQ(rtsp.call("OPTIONS", ""), 200);
    EXPECT_EQ(box.daemon().stop(SIGTERM, 10s), 0);
    EXPECT_LT(recording().size(), 3 * zt::load_alac_pcm("s16_stereo").size());
}

}  // namespace
