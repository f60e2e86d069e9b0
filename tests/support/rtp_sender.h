// The RTP side of an AirTunes sender: real ALAC frames from tests/data/alac, encrypted as a
// sender encrypts them (AES-128-CBC of the whole blocks from the stream IV, the rest in
// clear), sent as UDP datagrams from the sender's address to the box.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace zt {

using Frame = std::vector<uint8_t>;

inline constexpr const char* kBoxIp = "192.0.2.10";
inline constexpr const char* kSenderIp = "192.0.2.20";
inline constexpr int kAudioPort = 6000;
inline constexpr uint32_t kSamplesPerFrame = 352;

// The frames of tests/data/alac/NAME.frames, in order.
std::vector<Frame> load_alac_frames(const std::string& name);
// The source PCM of a vector, tests/data/alac/NAME.pcm.
std::string load_alac_pcm(const std::string& name);

class RtpSender {
   public:
    // A UDP socket bound to source (any port); datagrams go to the box's port 6000 and, for
    // retransmissions, to control_port.
    RtpSender(const std::array<uint8_t, 16>& key, const std::array<uint8_t, 16>& iv,
              int control_port, const std::string& source = kSenderIp);
    ~RtpSender();
    RtpSender(const RtpSender&) = delete;
    RtpSender& operator=(const RtpSender&) = delete;
    bool ok() const { return sock_ >= 0; }

    // The payload a sender makes of a frame.
    Frame encrypt(const Frame& frame) const;
    // A whole datagram: RTP header (type 0x60, or 0x56 behind its 4-byte prefix) + payload.
    Frame packet(const Frame& frame, uint16_t seq, uint32_t timestamp, bool resend = false) const;

    // Sends the next packet to port 6000; the sequence number advances by 1, the timestamp
    // by 352 samples.
    bool send_frame(const Frame& frame);
    // Sends frames in order, paced at speed times real time (0: as fast as the socket takes).
    bool send_frames(const std::vector<Frame>& frames, double speed = 1.0);
    // A retransmission (0x56) of frame as packet seq, to the control port.
    bool send_resend(const Frame& frame, uint16_t seq);
    // The last packet once more.
    bool send_duplicate();
    // Leaves count packets out: their numbers and timestamps are skipped.
    void skip(int count);
    // Any bytes to a port of the box.
    bool send_raw(const std::vector<uint8_t>& bytes, int port = kAudioPort);

    uint16_t next_seq() const { return seq_; }

   private:
    bool send_to(const Frame& bytes, int port);

    std::array<uint8_t, 16> key_, iv_;
    int control_port_;
    int sock_ = -1;
    uint16_t seq_ = 1000;
    uint32_t timestamp_ = 0;
    Frame last_;
};

}  // namespace zt
