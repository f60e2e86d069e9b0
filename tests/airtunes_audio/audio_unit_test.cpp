// The packet path without the daemon: datagram layout, the block/tail split of the cipher,
// the IV reset per packet, and whole streams decoded packet by packet into a pipe.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "airtunes/audio/airtunes_audio.h"
#include "airtunes/audio/airtunes_session.h"
#include "alac/alac_test_util.h"
#include "support/rtp_sender.h"

namespace {

const std::array<uint8_t, 16> kKey = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const std::array<uint8_t, 16> kIv = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6};

// The stream record as ANNOUNCE and SETUP leave it, for fmtp.
void announce(const std::vector<int>& fmtp) {
    std::lock_guard<std::mutex> guard(airtunes_session.lock);
    aes_set_decrypt_key_128(&airtunes_session.aes_key, kKey.data());
    std::copy(kIv.begin(), kIv.end(), airtunes_session.aes_iv.begin());
    airtunes_session.decoder = make_stream_decoder(fmtp);
    airtunes_session.frame_length = fmtp[1];
}

// Decodes one payload into a pipe and returns what came out of it.
struct pipe_path {
    int fds[2] = {-1, -1};
    audio_packet_buffers buffers;
    pipe_path() { EXPECT_EQ(pipe(fds), 0); }
    ~pipe_path() { close(fds[0]), close(fds[1]); }
    std::string decode(const zt::Frame& payload) {
        int n = airtunes_decode_packet(payload.data(), static_cast<int>(payload.size()), fds[1],
                                       &buffers);
        std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
        if (n > 0) {
            EXPECT_EQ(read(fds[0], out.data(), out.size()), n);
        }
        return out;
    }
};

TEST(RtpDatagram, HeaderOffsetsTypesAndShortDatagrams) {
    struct Case {
        std::vector<uint8_t> head;  // first bytes; the rest of length is 0xAA
        int length, type, seqno, payload_at;  // type 0: too short, -1: other type
    };
    for (const Case& c : std::vector<Case>{{{0x80, 0xE0, 0xFF, 0xFF}, 12, 0x60, 65535, 12},
                                           {{0x9F, 0x60, 0, 7}, 40, 0x60, 7, 12},
                                           {{0x80, 0xD6, 0, 1, 0x80, 0x60, 0x12, 0x34}, 16, 0x56,
                                            0x1234, 16},
                                           {{0x80, 0x60}, 11, 0, 0, 0},
                                           {{0x80, 0x56}, 15, 0, 0, 0},
                                           {{}, 0, 0, 0, 0},
                                           {{0x80, 0x61}, 100, -1, 0, 0}}) {
        std::vector<uint8_t> datagram(static_cast<size_t>(c.length), 0xAA);
        std::copy(c.head.begin(), c.head.end(), datagram.begin());
        rtp_packet p;
        rtp_verdict v = rtp_parse_datagram(datagram.data(), c.length, &p);
        EXPECT_EQ(v, c.type > 0    ? rtp_verdict::audio
                     : c.type == 0 ? rtp_verdict::too_short
                                   : rtp_verdict::other_type);
        if (v != rtp_verdict::audio) continue;
        EXPECT_EQ(p.payload_type, c.type);
        EXPECT_EQ(p.seqno, c.seqno);
        EXPECT_EQ(p.payload, datagram.data() + c.payload_at);
        EXPECT_EQ(p.payload_length, c.length - c.payload_at);
    }
}

// A verbatim frame stating `count` stereo samples, padded to `length` bytes: every sample
// comes straight from its bytes, so a wrongly decrypted byte shows in the PCM.
zt::Frame verbatim_frame(int count, size_t length, std::string* pcm) {
    bit_writer w;
    w.put(1, 3).put(0, 16).put(1, 1).put(0, 2).put(1, 1).put(static_cast<uint32_t>(count), 32);
    for (int i = 0; i < 2 * count; ++i) {
        const uint16_t v = static_cast<uint16_t>(i * 2654435761u >> 7);
        w.put(v, 16);
        pcm->push_back(static_cast<char>(v & 0xFF));
        pcm->push_back(static_cast<char>(v >> 8));
    }
    zt::Frame frame = w.bytes();
    frame.resize(length, 0x5A);
    return frame;
}

TEST(AudioPacket, WholeBlocksDecryptedTailInClearFreshIvEveryPacket) {
    announce({96, 352, 0, 16, 40, 10, 14, 2, 255, 0, 0, 44100});
    zt::RtpSender sender(kKey, kIv);
    pipe_path path;
    // 15 bytes: nothing encrypted; 16: one block, no tail; 1000: 992 encrypted, 8 in clear.
    for (auto [count, length] : {std::pair{2, 15}, {2, 16}, {248, 1000}, {352, 1431}}) {
        std::string pcm;
        zt::Frame frame = verbatim_frame(count, static_cast<size_t>(length), &pcm);
        zt::Frame payload = sender.encrypt(frame);
        // The same payload twice decodes the same: no chaining from packet to packet.
        EXPECT_EQ(path.decode(payload), pcm) << length;
        EXPECT_EQ(path.decode(payload), pcm) << length;
    }
    // A frame stating more samples than the stream's frame length writes nothing.
    std::string unused;
    EXPECT_EQ(path.decode(sender.encrypt(verbatim_frame(353, 1500, &unused))), "");
}

TEST(AudioPacket, StreamsDecodeToTheirSourcePcmIn16And24Bits) {
    for (const stream_vector& v : load_vectors()) {
        if (v.channels != 2 || v.fmtp[7] != 2) continue;
        announce(v.fmtp);
        zt::RtpSender sender(kKey, kIv);
        pipe_path path;
        std::string pcm;
        for (const zt::Frame& frame : zt::load_alac_frames(v.name))
            pcm += path.decode(sender.encrypt(frame));
        EXPECT_EQ(pcm, zt::load_alac_pcm(v.name)) << v.name;
        // Sized once for the largest frame: 352 samples of 2 or 3 bytes, two channels.
        EXPECT_EQ(path.buffers.pcm.size(), 352u * 2 * (v.bits / 8)) << v.name;
    }
    // No decoder yet (no SETUP): nothing is written.
    airtunes_session.decoder.reset();
    pipe_path path;
    EXPECT_EQ(path.decode(zt::Frame(100, 1)), "");
}

}  // namespace
