// The packet path without the daemon: datagram offsets, the cipher's block/tail split and
// fresh IV, and whole 16- and 24-bit streams decoded packet by packet into a pipe.
#include <gtest/gtest.h>
#include <unistd.h>

#include "airtunes/audio/airtunes_audio.h"
#include "airtunes/audio/airtunes_session.h"
#include "alac/alac_test_util.h"
#include "support/airtunes_sender.h"

namespace {

TEST(AudioPacket, RetransmissionOffsetsAndShortDatagrams) {
    std::vector<uint8_t> d = {0x80, 0xD6, 0, 1, 0x80, 0xE0, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0, 7};
    rtp_packet p;
    ASSERT_EQ(rtp_parse_datagram(d.data(), 17, &p), rtp_verdict::audio);
    EXPECT_EQ(p.seqno, 0x1234);
    EXPECT_EQ(p.payload, d.data() + 16);
    EXPECT_EQ(p.payload_length, 1);
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
    for (const stream_vector& v : load_vectors()) {
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
