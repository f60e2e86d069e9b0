// The audio data path of one datagram: RTP header and the 0x56 prefix, AES decryption with
// a fixed key and IV, ALAC decoding into PCM (written to /dev/null), with the decoder made
// by SETUP's own procedure from format values within what ANNOUNCE and SETUP accept.
// Input: sample size, frame length (2 bytes: up to 1024, where every branch of the decoder
// is met at a quarter of the cost of 4096; with a first byte 0xff the top lengths up to
// 65536), Rice history multiplier, initial history, Rice limit, then the datagram. The
// payload is encrypted before it goes in, so the decoder sees the fuzzer's bytes.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "airtunes/audio/airtunes_audio.h"
#include "airtunes/audio/airtunes_rtsp.h"
#include "airtunes/audio/airtunes_session.h"
#include "tools/decipher/aes.h"

namespace {
constexpr size_t kFormatBytes = 6;
constexpr uint8_t kKey[kAesKeySize] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kFormatBytes || size - kFormatBytes > kRtpDatagramSize) return 0;
    static const int sink = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static audio_packet_buffers buffers;
    {
        std::lock_guard<std::mutex> guard(airtunes_session.lock);
        aes_set_decrypt_key_128(&airtunes_session.aes_key, kKey);
        airtunes_session.aes_iv.fill(0x5a);
        int length = data[1] == 0xff ? 65536 - data[2] : ((data[1] << 8) | data[2]) % 1025;
        airtunes_session.fmtp = {96, length, 0, data[0], data[3], data[4], data[5], 2, 255, 0, 0,
                                 44100};
    }
    if (airtunes_init_decoder() != 0) return 0;

    rtp_packet packet;
    if (rtp_parse_datagram(data + kFormatBytes, static_cast<int>(size - kFormatBytes), &packet) !=
        rtp_verdict::audio)
        return 0;
    std::array<uint8_t, kRtpDatagramSize> encrypted{};
    const int whole = packet.payload_length - packet.payload_length % kAesBlockSize;
    std::copy(packet.payload, packet.payload + packet.payload_length, encrypted.begin());
    if (whole > 0 && aes_encrypt_payload(packet.payload, encrypted.data(), whole,
                                         airtunes_session.aes_iv.data(), kKey) != whole)
        __builtin_trap();
    airtunes_decode_packet(encrypted.data(), packet.payload_length, sink, &buffers);
    return 0;
}
