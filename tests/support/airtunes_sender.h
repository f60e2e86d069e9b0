// The sender's side of AirTunes from 192.0.2.20: the RTSP session with real RSA and AES, and
// RTP packets of ALAC frames (the committed streams of tests/data/alac) encrypted under the
// session's key and IV.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "support/support.h"

namespace zt {

Client connect_rtsp();  // from the sender's address to the daemon's port 5000
// One reply: a header block with its body, or a bare status line once nothing more arrives
// for 300 ms; "" when nothing came.
std::string recv_rtsp_reply(Client& c);
// A DMAP item: 4-character tag, 32-bit big-endian length, value.
std::string dmap_item(const std::string& tag, const std::string& value);

class AirtunesSender {
   public:
    explicit AirtunesSender(std::string device_id = "0A1B2C3D4E5F60");  // random key and IV
    std::string connect();  // OPTIONS on a connection of its own (its reply), then `conn`
    // A request with the next CSeq, the device id, headers (CR LF each) and the body.
    std::string request_text(const std::string& method, const std::string& headers = "",
                             const std::string& body = "");
    std::string request(const std::string& method, const std::string& headers = "",
                        const std::string& body = "");
    std::string options_with_challenge();
    // ANNOUNCE of the ALAC stream: the key under the box's public key, the IV, a challenge.
    std::string announce();
    std::string setup();
    bool start_stream();  // ANNOUNCE, SETUP and RECORD, each answered 200
    // The Apple-Response is the box key's signature over the last challenge, eth0's IPv4 and MAC.
    bool verify_apple_response(const std::string& reply) const;

    std::array<uint8_t, 16> aes_key{}, aes_iv{};
    int cseq = 0;
    Client conn;

   private:
    std::string device_id_;
    std::array<uint8_t, 16> challenge_{};
};

using Frame = std::vector<uint8_t>;

// A committed stream listed in tests/data/alac/vectors.txt: NAME.frames (each frame behind a
// 4-byte big-endian length) and NAME.pcm, its source PCM.
struct AlacVector {
    std::string name;
    int bits = 0, channels = 0, frames = 0, samples = 0;
    std::vector<int> fmtp;  // the twelve numbers of the SDP fmtp line
};
std::vector<AlacVector> alac_vectors();
std::vector<Frame> load_alac_frames(const std::string& name);
std::string load_alac_pcm(const std::string& name);

struct RtpSender {
    RtpSender(const std::array<uint8_t, 16>& key, const std::array<uint8_t, 16>& iv,
              const std::string& source = "192.0.2.20");
    ~RtpSender();
    // The whole 16-byte blocks with AES-128-CBC from the IV, the rest in clear.
    Frame encrypt(const Frame& frame) const;
    // 12-byte RTP header (type 0x60, marker set) and the encrypted frame; a retransmission
    // puts its 4-byte prefix of type 0x56 in front.
    Frame packet(const Frame& frame, uint16_t seq, uint32_t timestamp, bool resend = false) const;
    bool send(const Frame& datagram, int port = 6000) const;  // to the box
    // Packets seq, seq + 1, ... (timestamps + 352) at speed times real time (0: at once).
    bool send_frames(const std::vector<Frame>& frames, double speed = 1.0);

    std::array<uint8_t, 16> key, iv;
    int sock = -1;
    uint16_t seq = 1000;
    uint32_t timestamp = 0;
};

}  // namespace zt
