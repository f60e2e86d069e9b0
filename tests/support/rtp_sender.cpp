#include "support/rtp_sender.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "alac/alac_test_util.h"
#include "tools/decipher/aes.h"

namespace zt {

std::vector<Frame> load_alac_frames(const std::string& name) {
    return split_frames(::read_file(alac_data_dir() + name + ".frames"));
}

std::string load_alac_pcm(const std::string& name) {
    return zt::read_file(alac_data_dir() + name + ".pcm");
}

RtpSender::RtpSender(const std::array<uint8_t, 16>& k, const std::array<uint8_t, 16>& v,
                     const std::string& source)
    : key(k), iv(v), sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in addr{AF_INET, 0, {}, {}};
    inet_pton(AF_INET, source.c_str(), &addr.sin_addr);
    ::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
}

RtpSender::~RtpSender() {
    ::close(sock);
}

Frame RtpSender::encrypt(const Frame& frame) const {
    Frame out = frame;
    aes_encrypt_payload(frame.data(), out.data(), static_cast<int>(frame.size()), iv.data(),
                        key.data());
    return out;
}

Frame RtpSender::packet(const Frame& frame, uint16_t seq_no, uint32_t ts, bool resend) const {
    Frame out;
    if (resend) out = {0x80, 0xD6, 0x00, 0x01};
    const uint32_t seq32 = seq_no;
    for (uint32_t b : {0x80u, 0xE0u, seq32 >> 8, seq32, ts >> 24, ts >> 16, ts >> 8, ts, 0x12u,
                       0x34u, 0x56u, 0x78u})
        out.push_back(static_cast<uint8_t>(b));
    Frame payload = encrypt(frame);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

bool RtpSender::send(const Frame& datagram, int port) const {
    sockaddr_in to{AF_INET, htons(static_cast<uint16_t>(port)), {}, {}};
    inet_pton(AF_INET, "192.0.2.10", &to.sin_addr);
    return ::sendto(sock, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
                    sizeof(to)) == static_cast<ssize_t>(datagram.size());
}

bool RtpSender::send_frames(const std::vector<Frame>& frames, double speed) {
    const auto start = std::chrono::steady_clock::now();
    const std::chrono::duration<double> frame_time(352 / 44100.0 / (speed > 0 ? speed : 1e9));
    for (size_t i = 0; i < frames.size(); ++i, ++seq, timestamp += 352) {
        std::this_thread::sleep_until(
            start +
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(frame_time * i));
        if (!send(packet(frames[i], seq, timestamp))) return false;
    }
    return true;
}

}  // namespace zt
