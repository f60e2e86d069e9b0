// The RTP side of an AirTunes sender: ALAC frames encrypted as a sender encrypts them (the
// whole 16-byte blocks with AES-128-CBC from the stream IV, the rest in clear), sent as UDP
// datagrams from the sender's address to the box's port 6000 or its control port.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace zt {

using Frame = std::vector<uint8_t>;

// The frames of tests/data/alac/NAME.frames, and its source PCM NAME.pcm.
std::vector<Frame> load_alac_frames(const std::string& name);
std::string load_alac_pcm(const std::string& name);

struct RtpSender {
    // Binds a UDP socket to source (any port).
    RtpSender(const std::array<uint8_t, 16>& key, const std::array<uint8_t, 16>& iv,
              const std::string& source = "192.0.2.20");
    ~RtpSender();
    Frame encrypt(const Frame& frame) const;
    // A datagram: 12-byte RTP header (type 0x60, marker set) and the encrypted frame; a
    // retransmission puts its 4-byte prefix of type 0x56 in front.
    Frame packet(const Frame& frame, uint16_t seq, uint32_t timestamp, bool resend = false) const;
    bool send(const Frame& datagram, int port = 6000) const;
    // Sends the frames as packets seq, seq + 1, ... (timestamps + 352) at speed times real
    // time (0: as fast as the socket takes them). seq and timestamp move on.
    bool send_frames(const std::vector<Frame>& frames, double speed = 1.0);

    std::array<uint8_t, 16> key, iv;
    int sock = -1;
    uint16_t seq = 1000;
    uint32_t timestamp = 0;
};

}  // namespace zt
