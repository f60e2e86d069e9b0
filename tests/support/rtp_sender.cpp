#include "support/rtp_sender.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "alac/alac_test_util.h"
#include "support/support.h"
#include "tools/decipher/aes.h"

namespace zt {

std::vector<Frame> load_alac_frames(const std::string& name) {
    return split_frames(::read_file(alac_data_dir() + name + ".frames"));
}

std::string load_alac_pcm(const std::string& name) {
    return zt::read_file(alac_data_dir() + name + ".pcm");
}

RtpSender::RtpSender(const std::array<uint8_t, 16>& key, const std::array<uint8_t, 16>& iv,
                     int control_port, const std::string& source)
    : key_(key), iv_(iv), control_port_(control_port) {
    sock_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, source.c_str(), &addr.sin_addr);
    if (sock_ >= 0 && ::bind(sock_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(sock_);
        sock_ = -1;
    }
}

RtpSender::~RtpSender() {
    if (sock_ >= 0) ::close(sock_);
}

Frame RtpSender::encrypt(const Frame& frame) const {
    Frame out = frame;
    aes_encrypt_payload(frame.data(), out.data(), static_cast<int>(frame.size()), iv_.data(),
                        key_.data());
    return out;
}

Frame RtpSender::packet(const Frame& frame, uint16_t seq, uint32_t timestamp,
                        bool resend) const {
    Frame out;
    out.reserve(16 + frame.size());
    // A retransmission: its own prefix (marker and type 0x56), then the original packet.
    if (resend) {
        for (uint8_t b : {0x80, 0xD6, 0x00, 0x01}) out.push_back(b);
    }
    out.push_back(0x80);
    out.push_back(0xE0);  // marker set, as on a stream's first packet
    for (int shift : {8, 0}) out.push_back(static_cast<uint8_t>(seq >> shift));
    for (int shift : {24, 16, 8, 0}) out.push_back(static_cast<uint8_t>(timestamp >> shift));
    for (uint8_t b : {0x12, 0x34, 0x56, 0x78}) out.push_back(b);  // SSRC
    for (uint8_t b : encrypt(frame)) out.push_back(b);
    return out;
}

bool RtpSender::send_to(const Frame& bytes, int port) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, kBoxIp, &to.sin_addr);
    return ::sendto(sock_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to),
                    sizeof(to)) == static_cast<ssize_t>(bytes.size());
}

bool RtpSender::send_frame(const Frame& frame) {
    last_ = packet(frame, seq_, timestamp_);
    ++seq_;
    timestamp_ += kSamplesPerFrame;
    return send_to(last_, kAudioPort);
}

bool RtpSender::send_frames(const std::vector<Frame>& frames, double speed) {
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    const double frame_seconds = kSamplesPerFrame / 44100.0;
    for (size_t i = 0; i < frames.size(); ++i) {
        if (speed > 0) {
            auto due = start + std::chrono::duration_cast<clock::duration>(
                                   std::chrono::duration<double>(i * frame_seconds / speed));
            std::this_thread::sleep_until(due);
        } else if (i % 16 == 15) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // the socket buffer
        }
        if (!send_frame(frames[i])) return false;
    }
    return true;
}

bool RtpSender::send_resend(const Frame& frame, uint16_t seq) {
    return send_to(packet(frame, seq, 0, true), control_port_);
}

bool RtpSender::send_duplicate() {
    return !last_.empty() && send_to(last_, kAudioPort);
}

void RtpSender::skip(int count) {
    seq_ = static_cast<uint16_t>(seq_ + count);
    timestamp_ += kSamplesPerFrame * static_cast<uint32_t>(count);
}

bool RtpSender::send_raw(const std::vector<uint8_t>& bytes, int port) {
    return send_to(bytes, port);
}

}  // namespace zt
