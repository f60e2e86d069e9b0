// The AirTunes service's parsers and conversions, and the packet path without the daemon:
// datagram offsets, the cipher's block/tail split and IV, whole streams decoded into a pipe.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "airtunes/audio/airtunes_audio.h"
#include "airtunes/audio/airtunes_rtsp.h"
#include "airtunes/audio/airtunes_session.h"
#include "alac/alac_test_util.h"
#include "tools/decipher/base64.h"
#include "tools/decipher/challenge.h"

namespace {

TEST(AirtunesUnit, Base64HexAndChallengeMessage) {
    // Padded, unpadded, CR LF ended, and cut to a buffer of 4 (three bytes and a NUL).
    const std::tuple<const char*, size_t, std::string> decodes[] = {
        {"QUJD", 64, "ABC"}, {"QUI=", 64, "AB"}, {"QUJ\r\n", 64, "AB"}, {"QUJDRA", 64, "ABCD"},
        {"QUJDREVGR0g", 4, "ABC"}};
    for (const auto& [text, capacity, bytes] : decodes) {
        uint8_t out[64] = {};
        int n = base64_decode(out, capacity, text);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), std::max(n, 0)), bytes) << text;
    }
    char text[8];
    EXPECT_EQ(base64_encode(text, sizeof(text), reinterpret_cast<const uint8_t*>("A"), 1), 5);
    EXPECT_STREQ(text, "QQ==");
    EXPECT_EQ(base64_encode(text, 4, reinterpret_cast<const uint8_t*>("A"), 1), -1);
    EXPECT_EQ(std::pair(atoh("1f", 2, 0), atoh("1f", 2, 1)), std::pair(31, 241));
    uint8_t challenge[16] = {9, 0, 7}, msg[kChallengeMessageCapacity];
    ASSERT_EQ(challenge_message(challenge, 16, "192.168.1.20\n", "00:1a:2B:3c:4D:5e", msg), 32);
    const uint8_t tail[] = {192, 168, 1, 20, 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0, 0, 0, 0, 0, 0};
    EXPECT_FALSE(std::memcmp(msg, challenge, 16) || std::memcmp(msg + 16, tail, 16));
}

TEST(AirtunesUnit, VolumeMapping) {
    const std::pair<double, int> table[] = {{-30.0, -15}, {-20.5, -10}, {-15.0, -7}, {-2.0, -1},
        {-1.0, 0}, {0.0, 0}, {-144.0, -15}, {1e300, 500000}, {-1e300, -15}};
    for (auto [db, box] : table) EXPECT_EQ(airtunes_volume_to_box(db), box) << db;
}

TEST(AirtunesUnit, DmapMetadata) {
    auto item = zt::dmap_item;
    auto line = [&](const std::string& items) {
        std::string body = item("mlit", items);
        char out[256];
        airtunes_dmap_line(reinterpret_cast<const uint8_t*>(body.data()), body.size(), out);
        return std::string(out);
    };
    EXPECT_EQ(line(item("minm", "Song") + item("mper", "12345678") + item("asgn", "Rock")),
              "|zor||zor|Song|zor|Rock|zor|");
    EXPECT_EQ(line(item("minm", std::string("Ab\0cd", 5))), "|zor||zor|Ab|zor||zor|");
    for (const std::string& cut : {item("minm", "Song").substr(0, 10), std::string("min")})
        EXPECT_EQ(line(item("asar", "Band") + cut), "|zor|Band|zor||zor||zor|");  // past the body
    const std::string big(300, 'x');
    EXPECT_EQ(line(item("asal", big)), std::string(127, 'x') + "|zor||zor||zor||zor|");
    EXPECT_EQ(line(item("asal", big) + item("asar", big) + item("minm", big)).size(), 255u);
}

TEST(AirtunesUnit, SdpAttributes) {
    std::string sdp = "a=fmtp:96 352\r\na=aesiv:AAAA\r\na=fmtp:1 2\r\na=rsaaeskey:KEY";
    char out[8] = "kept";  // untouched when absent; the first fmtp; the last line without CR LF
    const std::tuple<const char*, size_t, bool, const char*> cases[] = {
        {"a=rtpmap:", 8, false, "kept"}, {"a=fmtp:", 8, true, "96 352"},
        {"a=rsaaeskey:", 8, true, "KEY"}, {"a=fmtp:", 4, true, "96 "}};
    for (auto [name, capacity, found, value] : cases) {
        ASSERT_EQ(sdp_attribute(sdp, name, out, capacity), found) << name;
        EXPECT_STREQ(out, value) << name;
    }
}

TEST(AudioPacket, RetransmissionOffsetsAndShortDatagrams) {
    std::vector<uint8_t> d = {0x80, 0xD6, 0, 1, 0x80, 0xE0, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0, 7};
    rtp_packet p;
    ASSERT_EQ(rtp_parse_datagram(d.data(), 17, &p), rtp_verdict::audio);
    EXPECT_EQ(std::tuple(p.seqno, p.payload, p.payload_length), std::tuple(0x1234, &d[16], 1));
    EXPECT_EQ(rtp_parse_datagram(d.data(), 15, &p), rtp_verdict::too_short);
    d[1] = 0xE0;  // audio with the marker bit: the payload right behind the 12-byte header
    ASSERT_EQ(rtp_parse_datagram(d.data(), 12, &p), rtp_verdict::audio);
    EXPECT_EQ(p.payload_length, 0);
    EXPECT_EQ(rtp_parse_datagram(d.data(), 11, &p), rtp_verdict::too_short);
    d[1] = 0x61;
    EXPECT_EQ(rtp_parse_datagram(d.data(), 17, &p), rtp_verdict::other_type);
}

TEST(AudioPacket, StreamsDecodeBitExactWithTheTailInClearAndAFreshIvPerPacket) {
    const std::array<uint8_t, 16> key = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    zt::RtpSender sender(key, key);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    audio_packet_buffers buffers;
    auto decode = [&](const zt::Frame& frame) {
        zt::Frame payload = sender.encrypt(frame);
        int n = airtunes_decode_packet(payload.data(), int(payload.size()), fds[1], &buffers);
        std::string out(std::max(n, 0), '\0');
        return n > 0 && read(fds[0], out.data(), out.size()) == n ? out : "";
    };
    aes_set_decrypt_key_128(&airtunes_session.aes_key, key.data());
    std::copy(key.begin(), key.end(), airtunes_session.aes_iv.begin());
    airtunes_session.decoder = make_stream_decoder({96, 352, 0, 16, 40, 10, 14, 2, 255, 0, 0, 0});
    // Verbatim frames of 15 (all in clear), 16 (one block) and 1000 bytes (992 + 8 in clear)
    // show every byte in their PCM; one stating more samples than 352 writes nothing.
    for (auto [count, length] : {std::pair{2, 15}, {2, 16}, {248, 1000}, {353, 1500}}) {
        bit_writer w;
        w.put(0x100009, 23).put(static_cast<uint32_t>(count), 32);  // stereo, sized, verbatim
        std::string expected;
        for (int i = 0; count <= 352 && i < 2 * count; ++i) {
            const int sample = i * 977 % 65536;
            w.put(static_cast<uint32_t>(sample), 16);
            expected += {char(sample & 0xFF), char(sample >> 8)};
        }
        zt::Frame frame = w.bytes();
        frame.resize(static_cast<size_t>(length), 0x5A);
        EXPECT_EQ(decode(frame), expected) << length;
    }
    for (const zt::AlacVector& v : zt::alac_vectors()) {
        if (v.fmtp[7] != 2) continue;  // stereo 16 and 24 bits
        airtunes_session.decoder = make_stream_decoder(v.fmtp);
        std::string pcm;
        for (const zt::Frame& frame : zt::load_alac_frames(v.name)) {
            const std::string once = decode(frame);
            EXPECT_EQ(decode(frame), once) << v.name;  // the same payload twice: same PCM
            pcm += once;
        }
        EXPECT_EQ(pcm, zt::load_alac_pcm(v.name)) << v.name;
        // Sized once for the largest frame: 352 samples of two 2- or 3-byte channels.
        EXPECT_EQ(buffers.pcm.size(), 352u * 2 * (v.bits / 8)) << v.name;
    }
    close(fds[0]), close(fds[1]);
}

}  // namespace
