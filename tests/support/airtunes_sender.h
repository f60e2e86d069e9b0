// The sender's side of an AirTunes RTSP session against the real daemon in the sandbox, with
// real RSA and AES: the Apple-Challenge and its cryptographic check, the stream key encrypted
// for the box's public key, SETUP's ports, RECORD and TEARDOWN. The RTP side of a test reuses
// its key, IV, ports and address.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

#include "support/support.h"

namespace zt {

// The address senders bind to (ZOR_SENDER_IP, 192.0.2.20 by default).
std::string sender_ip();

// Connects from local_ip to host:port; an invalid Client on failure.
Client connect_from(const std::string& local_ip, const std::string& host, int port);

// Reads one RTSP reply: a header block (with its Content-Length body), or a bare status line
// once nothing more arrives for a moment. "" when nothing came within timeout.
std::string recv_rtsp_reply(Client& c, std::chrono::milliseconds timeout = std::chrono::seconds(8));

class AirtunesSender {
   public:
    // A random AES key and IV; device_id is the X-Apple-Device-ID (14 characters).
    explicit AirtunesSender(std::string device_id = "0A1B2C3D4E5F60");

    // OPTIONS on a connection of its own (closed again), then opens the session connection.
    // Returns the first OPTIONS reply ("" when the daemon could not be reached).
    std::string connect();

    // Sends one request on the session connection with the next CSeq: request line
    // "METHOD rtsp://192.0.2.10/1 RTSP/1.0", CSeq, the extra header lines (each ending CR LF),
    // Content-Length when body is not empty, the body. Returns the reply.
    std::string request(const std::string& method, const std::string& headers = "",
                        const std::string& body = "");
    // The same text as request() would send, for tests that send it themselves.
    std::string request_text(const std::string& method, const std::string& headers,
                             const std::string& body);

    // OPTIONS with a fresh Apple-Challenge (or none).
    std::string options(bool challenge);
    // ANNOUNCE of an ALAC stream with the encrypted key, the IV, the usual fmtp line and a
    // fresh challenge.
    std::string announce();
    std::string sdp() const;
    // SETUP with the control and timing ports; RECORD; TEARDOWN.
    std::string setup();
    std::string record();
    std::string teardown();

    // Whether the reply's Apple-Response is the box key's signature over the last challenge,
    // eth0's IPv4 (ZOR_ETH0_IP) and MAC (ZOR_ETH0_MAC).
    bool verify_apple_response(const std::string& reply) const;

    const std::array<uint8_t, 16>& aes_key() const { return key_; }
    const std::array<uint8_t, 16>& aes_iv() const { return iv_; }
    int control_port() const { return control_port_; }
    int timing_port() const { return timing_port_; }
    const std::string& device_id() const { return device_id_; }
    int cseq() const { return cseq_; }
    Client& connection() { return conn_; }

   private:
    std::string device_id_;
    std::array<uint8_t, 16> key_{};
    std::array<uint8_t, 16> iv_{};
    std::array<uint8_t, 16> challenge_{};
    int control_port_ = 6001;
    int timing_port_ = 6002;
    int cseq_ = 0;
    Client conn_;
};

}  // namespace zt
