// The sender's side of AirTunes from 192.0.2.20: RTSP with real RSA and AES, and RTP packets of
// the ALAC frames of tests/data/alac encrypted under the session's key and IV.
#pragma once

#include <array>
#include <cstdint>

#include "support/support.h"

namespace zt {

inline Client connect_rtsp() { return connect_from("192.0.2.20", "192.0.2.10", 5000); }
// One reply: a header block with its body, or a bare status line once nothing more arrives
// for 300 ms; "" when nothing came.
std::string recv_rtsp_reply(Client& c);
// A DMAP item: 4-character tag, 32-bit big-endian length, value.
std::string dmap_item(const std::string& tag, const std::string& value);

class AirtunesSender {
   public:
    explicit AirtunesSender(std::string device_id = "0A1B2C3D4E5F60");  // random key and IV
    // OPTIONS on a connection of its own (its reply), then the session's connection.
    std::string connect() {
        Client first = connect_rtsp();
        first.send(request_text("OPTIONS"));
        conn = connect_rtsp();
        return recv_rtsp_reply(first);
    }
    // A request with the next CSeq, the device id, headers (CR LF each) and the body.
    std::string request_text(const std::string& method, const std::string& headers = "",
                             const std::string& body = "");
    std::string request(const std::string& method, const std::string& headers = "",
                        const std::string& body = "") {
        return conn.send(request_text(method, headers, body)) ? recv_rtsp_reply(conn) : "";
    }
    // ANNOUNCE of the ALAC stream: the key under the box's public key, the IV, a challenge.
    std::string announce();
    std::string setup() {
        return request("SETUP", "Transport: RTP/AVP/UDP;unicast;mode=record;control_port=6001;"
                                "timing_port=6002\r\n");
    }
    std::string new_challenge();  // its header line without CR LF
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
inline std::string load_alac_pcm(const std::string& name) {
    return read_file(source_dir() + "/tests/data/alac/" + name + ".pcm");
}

struct RtpSender {
    RtpSender(const std::array<uint8_t, 16>& key, const std::array<uint8_t, 16>& iv,
              const std::string& source = "192.0.2.20");
    ~RtpSender() { ::close(sock); }
    // The whole 16-byte blocks with AES-128-CBC from the IV, the rest in clear.
    Frame encrypt(const Frame& frame) const;
    // A retransmission puts its 4-byte prefix of type 0x56 in front of the RTP header.
    Frame packet(const Frame& frame, uint16_t seq, uint32_t timestamp, bool resend = false) const;
    bool send(const Frame& datagram, int port = 6000) const;
    // Packets seq, seq + 1, ... (timestamps + 352) at speed times real time (0: at once).
    bool send_frames(const std::vector<Frame>& frames, double speed = 1.0);

    std::array<uint8_t, 16> key, iv;
    int sock = -1;
    uint16_t seq = 1000;
    uint32_t timestamp = 0;
};

}  // namespace zt
