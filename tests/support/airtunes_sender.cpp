#include "support/airtunes_sender.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "tools/decipher/base64.h"

namespace zt {
namespace {

std::string env_or(const char* name, const char* fallback) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? v : fallback;
}

std::string b64(const uint8_t* data, size_t n) {
    std::vector<char> out(n * 2 + 4);
    base64_encode(out.data(), out.size(), data, static_cast<int>(n));
    return out.data();
}

// The public-key side of the daemon's two private-key operations: OAEP encryption of the
// stream key, recovery of the PKCS #1 v1.5 signed message.
std::vector<uint8_t> rsa_public(const uint8_t* in, size_t n, bool encrypt) {
    FILE* f = std::fopen(env_or("ZOR_RSA_PUBKEY", "/opt/zor/app/airplay/RAOPKey.pub").c_str(), "r");
    if (f == nullptr) return {};
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        PEM_read_PUBKEY(f, nullptr, nullptr, nullptr), EVP_PKEY_free);
    std::fclose(f);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
        key ? EVP_PKEY_CTX_new(key.get(), nullptr) : nullptr, EVP_PKEY_CTX_free);
    if (!ctx) return {};
    int init = encrypt ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_verify_recover_init(ctx.get());
    int padding = encrypt ? RSA_PKCS1_OAEP_PADDING : RSA_PKCS1_PADDING;
    std::vector<uint8_t> out(static_cast<size_t>(EVP_PKEY_get_size(key.get())));
    size_t len = out.size();
    if (init != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) != 1 ||
        (encrypt ? EVP_PKEY_encrypt(ctx.get(), out.data(), &len, in, n)
                 : EVP_PKEY_verify_recover(ctx.get(), out.data(), &len, in, n)) != 1)
        return {};
    out.resize(len);
    return out;
}

bool complete(const std::string& data) {
    size_t end = data.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    std::string cl = header_value(data.substr(0, end + 4), "Content-Length");
    return data.size() >= end + 4 + std::strtoul(cl.c_str(), nullptr, 10);
}

}  // namespace

std::string sender_ip() {
    return env_or("ZOR_SENDER_IP", "192.0.2.20");
}

Client connect_rtsp() {
    Client c(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in local{AF_INET, 0, {}, {}}, daemon{AF_INET, htons(5000), {}, {}};
    ::inet_pton(AF_INET, sender_ip().c_str(), &local.sin_addr);
    ::inet_pton(AF_INET, env_or("ZOR_ETH0_IP", "192.0.2.10").c_str(), &daemon.sin_addr);
    if (::bind(c.fd(), reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
        ::connect(c.fd(), reinterpret_cast<sockaddr*>(&daemon), sizeof(daemon)) != 0)
        return Client();
    return c;
}

// The first byte may take seconds: the daemon loads and checks its RSA key for each challenge
// and stream key, which on the box's ARM (or the ARM build under emulation) is slow.
std::string recv_rtsp_reply(Client& c) {
    std::string data = c.recv_some(std::chrono::seconds(30));
    for (std::string more = "x"; !data.empty() && !complete(data) && !more.empty(); data += more)
        more = c.recv_some(std::chrono::milliseconds(300));
    return data;
}

AirtunesSender::AirtunesSender(std::string device_id) : device_id_(std::move(device_id)) {
    RAND_bytes(aes_key.data(), 16);
    RAND_bytes(aes_iv.data(), 16);
}

std::string AirtunesSender::connect() {
    Client first = connect_rtsp();
    first.send(request_text("OPTIONS"));
    std::string reply = recv_rtsp_reply(first);
    conn = connect_rtsp();
    return reply;
}

std::string AirtunesSender::request_text(const std::string& method, const std::string& headers,
                                         const std::string& body) {
    std::string length =
        body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return method + " rtsp://192.0.2.10/1 RTSP/1.0\r\nCSeq: " + std::to_string(++cseq) +
           "\r\nX-Apple-Device-ID: " + device_id_ + "\r\n" + headers + length + "\r\n" + body;
}

std::string AirtunesSender::request(const std::string& method, const std::string& headers,
                                    const std::string& body) {
    return conn.send(request_text(method, headers, body)) ? recv_rtsp_reply(conn) : "";
}

std::string AirtunesSender::options_with_challenge() {
    RAND_bytes(challenge_.data(), 16);
    return request("OPTIONS", "Apple-Challenge: " + b64(challenge_.data(), 16) + "\r\n");
}

std::string AirtunesSender::announce() {
    RAND_bytes(challenge_.data(), 16);
    std::vector<uint8_t> key = rsa_public(aes_key.data(), 16, true);
    std::string sdp = "v=0\r\no=iTunes 1 0 IN IP4 " + sender_ip() +
                      "\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 AppleLossless\r\n"
                      "a=fmtp:96 352 0 16 40 10 14 2 255 0 0 44100\r\na=rsaaeskey:" +
                      b64(key.data(), key.size()) + "\r\na=aesiv:" + b64(aes_iv.data(), 16) +
                      "\r\n";
    // Senders leave out the challenge's "==" padding.
    return request("ANNOUNCE",
                   "Content-Type: application/sdp\r\nApple-Challenge: " +
                       b64(challenge_.data(), 16).substr(0, 22) + "\r\n",
                   sdp);
}

std::string AirtunesSender::setup() {
    return request("SETUP", "Transport: RTP/AVP/UDP;unicast;mode=record;control_port=" +
                                std::to_string(control_port) +
                                ";timing_port=" + std::to_string(timing_port) + "\r\n");
}

bool AirtunesSender::verify_apple_response(const std::string& reply) const {
    std::string value = header_value(reply, "Apple-Response");
    std::vector<uint8_t> signature(value.size());
    signature.resize(
        static_cast<size_t>(base64_decode(signature.data(), signature.size(), value.c_str())));
    std::vector<uint8_t> expected(challenge_.begin(), challenge_.end());
    expected.resize(32, 0);
    ::inet_pton(AF_INET, env_or("ZOR_ETH0_IP", "192.0.2.10").c_str(), &expected[16]);
    std::string mac = env_or("ZOR_ETH0_MAC", "02:5a:4f:52:00:01");
    for (size_t i = 0; i < 6; ++i)
        expected[20 + i] = static_cast<uint8_t>(std::stoul(mac.substr(3 * i, 2), nullptr, 16));
    return value.size() == 342 && rsa_public(signature.data(), signature.size(), false) == expected;
}

}  // namespace zt
