#include "support/airtunes_sender.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace zt {
namespace {

std::string env_or(const char* name, const char* fallback) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? v : fallback;
}

std::string b64(const uint8_t* data, size_t n) {
    std::vector<unsigned char> out(4 * ((n + 2) / 3) + 1);
    int len = EVP_EncodeBlock(out.data(), data, static_cast<int>(n));
    return std::string(reinterpret_cast<char*>(out.data()), static_cast<size_t>(len));
}

std::vector<uint8_t> unb64(std::string text) {
    while (text.size() % 4 != 0) text += '=';
    std::vector<uint8_t> out(text.size() / 4 * 3);
    int len = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<int>(text.size()));
    if (len < 0) return {};
    size_t pad = text.size() - text.find_last_not_of('=') - 1;
    out.resize(static_cast<size_t>(len) - pad);
    return out;
}

using pkey_ptr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using ctx_ptr = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

pkey_ptr public_key() {
    FILE* f = std::fopen(env_or("ZOR_RSA_PUBKEY", "/opt/zor/app/airplay/RAOPKey.pub").c_str(), "r");
    EVP_PKEY* key = f != nullptr ? PEM_read_PUBKEY(f, nullptr, nullptr, nullptr) : nullptr;
    if (f != nullptr) std::fclose(f);
    return pkey_ptr(key, EVP_PKEY_free);
}

// The public-key side of the two private-key operations: OAEP encryption of the stream key,
// and recovery of the PKCS #1 v1.5 signed message.
std::vector<uint8_t> rsa_public(const uint8_t* in, size_t n, bool encrypt) {
    pkey_ptr key = public_key();
    if (!key) return {};
    ctx_ptr ctx(EVP_PKEY_CTX_new(key.get(), nullptr), EVP_PKEY_CTX_free);
    int init = encrypt ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_verify_recover_init(ctx.get());
    int padding = encrypt ? RSA_PKCS1_OAEP_PADDING : RSA_PKCS1_PADDING;
    if (init != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) != 1) return {};
    std::vector<uint8_t> out(static_cast<size_t>(EVP_PKEY_get_size(key.get())));
    size_t len = out.size();
    int ok = encrypt ? EVP_PKEY_encrypt(ctx.get(), out.data(), &len, in, n)
                     : EVP_PKEY_verify_recover(ctx.get(), out.data(), &len, in, n);
    if (ok != 1) return {};
    out.resize(len);
    return out;
}

bool complete(const std::string& data) {
    size_t end = data.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    std::string cl = header_value(data.substr(0, end + 4), "Content-Length");
    return data.size() >= end + 4 + (cl.empty() ? 0 : std::strtoul(cl.c_str(), nullptr, 10));
}

}  // namespace

std::string sender_ip() {
    return env_or("ZOR_SENDER_IP", "192.0.2.20");
}

Client connect_from(const std::string& local_ip, const std::string& host, int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    ::inet_pton(AF_INET, local_ip.c_str(), &local.sin_addr);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    ::inet_pton(AF_INET, host.c_str(), &addr.sin_addr);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
        ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return Client();
    }
    return Client(fd);
}

std::string recv_rtsp_reply(Client& c, std::chrono::milliseconds timeout) {
    std::string data = c.recv_some(timeout);
    while (!data.empty() && !complete(data)) {
        std::string more = c.recv_some(std::chrono::milliseconds(300));
        if (more.empty()) break;
        data += more;
    }
    return data;
}

AirtunesSender::AirtunesSender(std::string device_id) : device_id_(std::move(device_id)) {
    RAND_bytes(key_.data(), static_cast<int>(key_.size()));
    RAND_bytes(iv_.data(), static_cast<int>(iv_.size()));
}

std::string AirtunesSender::connect() {
    std::string reply;
    {
        Client first = connect_from(sender_ip(), env_or("ZOR_ETH0_IP", "192.0.2.10"), 5000);
        if (!first.ok()) return {};
        first.send(request_text("OPTIONS", "", ""));
        reply = recv_rtsp_reply(first);
    }
    conn_ = connect_from(sender_ip(), env_or("ZOR_ETH0_IP", "192.0.2.10"), 5000);
    return conn_.ok() ? reply : std::string();
}

std::string AirtunesSender::request_text(const std::string& method, const std::string& headers,
                                         const std::string& body) {
    std::string text = method +
                       " rtsp://192.0.2.10/1 RTSP/1.0\r\nCSeq: " + std::to_string(++cseq_) +
                       "\r\nX-Apple-Device-ID: " + device_id_ + "\r\n" + headers;
    if (!body.empty()) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

std::string AirtunesSender::request(const std::string& method, const std::string& headers,
                                    const std::string& body) {
    if (!conn_.send(request_text(method, headers, body))) return {};
    return recv_rtsp_reply(conn_);
}

std::string AirtunesSender::options(bool challenge) {
    if (!challenge) return request("OPTIONS");
    RAND_bytes(challenge_.data(), static_cast<int>(challenge_.size()));
    return request("OPTIONS", "Apple-Challenge: " + b64(challenge_.data(), 16) + "\r\n");
}

std::string AirtunesSender::sdp() const {
    std::vector<uint8_t> key = rsa_public(key_.data(), key_.size(), true);
    return "v=0\r\no=iTunes 1 0 IN IP4 192.0.2.20\r\ns=iTunes\r\nc=IN IP4 192.0.2.20\r\n"
           "t=0 0\r\nm=audio 0 RTP/AVP 96\r\na=rtpmap:96 AppleLossless\r\n"
           "a=fmtp:96 352 0 16 40 10 14 2 255 0 0 44100\r\n"
           "a=rsaaeskey:" +
           b64(key.data(), key.size()) +
           "\r\n"
           "a=aesiv:" +
           b64(iv_.data(), iv_.size()) + "\r\n";
}

std::string AirtunesSender::announce() {
    RAND_bytes(challenge_.data(), static_cast<int>(challenge_.size()));
    std::string challenge = b64(challenge_.data(), 16);
    challenge.resize(22);  // senders leave out the padding
    return request("ANNOUNCE",
                   "Content-Type: application/sdp\r\nApple-Challenge: " + challenge + "\r\n",
                   sdp());
}

std::string AirtunesSender::setup() {
    return request("SETUP",
                   "Transport: RTP/AVP/UDP;unicast;interleaved=0-1;mode=record;"
                   "control_port=" +
                       std::to_string(control_port_) +
                       ";timing_port=" + std::to_string(timing_port_) + "\r\n");
}

std::string AirtunesSender::record() {
    return request("RECORD", "Range: npt=0-\r\nSession: DEADBEEF\r\n");
}

std::string AirtunesSender::teardown() {
    return request("TEARDOWN", "Session: DEADBEEF\r\n");
}

bool AirtunesSender::verify_apple_response(const std::string& reply) const {
    std::string value = header_value(reply, "Apple-Response");
    if (value.size() != 342) return false;
    std::vector<uint8_t> signature = unb64(value);
    std::vector<uint8_t> message = rsa_public(signature.data(), signature.size(), false);
    std::vector<uint8_t> expected(challenge_.begin(), challenge_.end());
    in_addr ip{};
    ::inet_pton(AF_INET, env_or("ZOR_ETH0_IP", "192.0.2.10").c_str(), &ip);
    const auto* octets = reinterpret_cast<const uint8_t*>(&ip.s_addr);
    expected.insert(expected.end(), octets, octets + 4);
    std::string mac = env_or("ZOR_ETH0_MAC", "02:5a:4f:52:00:01");
    for (size_t i = 0; i < 6; ++i)
        expected.push_back(
            static_cast<uint8_t>(std::strtoul(mac.substr(3 * i, 2).c_str(), nullptr, 16)));
    expected.resize(32, 0);
    return message == expected;
}

}  // namespace zt
