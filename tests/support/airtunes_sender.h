// The sender's side of an AirTunes RTSP session, with real RSA and AES, from the sender
// address. The RTP side of a test reuses its key, IV, ports and address.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "support/support.h"

namespace zt {

std::string sender_ip();  // ZOR_SENDER_IP, 192.0.2.20 by default
// Connects from sender_ip() to the daemon's RTSP port; an invalid Client on failure.
Client connect_rtsp();
// One reply: a header block with its Content-Length body, or a bare status line once nothing
// more arrives for 300 ms. "" when nothing came within 8 s.
std::string recv_rtsp_reply(Client& c);

class AirtunesSender {
   public:
    explicit AirtunesSender(std::string device_id = "0A1B2C3D4E5F60");  // random key and IV
    // OPTIONS on a connection of its own, then the session connection; the first reply.
    std::string connect();
    // A request with the next CSeq, the device id, headers (CR LF each) and the body.
    std::string request_text(const std::string& method, const std::string& headers = "",
                             const std::string& body = "");
    std::string request(const std::string& method, const std::string& headers = "",
                        const std::string& body = "");
    std::string options_with_challenge();
    // ANNOUNCE of the ALAC stream: the key under the box's public key, the IV, a challenge.
    std::string announce();
    std::string setup();  // control and timing ports
    // ANNOUNCE, SETUP and RECORD; false unless each is answered 200.
    bool start_stream();
    // The Apple-Response is the box key's signature over the last challenge, eth0's IPv4 and MAC.
    bool verify_apple_response(const std::string& reply) const;

    std::array<uint8_t, 16> aes_key{}, aes_iv{};
    int control_port = 6001, timing_port = 6002;
    int cseq = 0;
    Client conn;

   private:
    std::string device_id_;
    std::array<uint8_t, 16> challenge_{};
};

}  // namespace zt
