#include "support/airtunes_sender.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <thread>

#include "tools/decipher/aes.h"
#include "tools/decipher/base64.h"

namespace zt {
namespace {

std::string b64(const uint8_t* data, size_t n) {
    std::vector<char> out(n * 2 + 4);
    base64_encode(out.data(), out.size(), data, static_cast<int>(n));
    return out.data();
}

// The public-key side of the daemon's two private-key operations: OAEP encryption of the
// stream key, recovery of the PKCS #1 v1.5 signed message.
std::vector<uint8_t> rsa_public(const uint8_t* in, size_t n, bool encrypt) {
    const char* path = std::getenv("ZOR_RSA_PUBKEY");  // set by the sandbox
    FILE* f = path ? std::fopen(path, "r") : nullptr;
    if (f == nullptr) return {};
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        PEM_read_PUBKEY(f, nullptr, nullptr, nullptr), EVP_PKEY_free);
    std::fclose(f);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
        key ? EVP_PKEY_CTX_new(key.get(), nullptr) : nullptr, EVP_PKEY_CTX_free);
    if (!ctx) return {};
    int init = encrypt ? EVP_PKEY_encrypt_init(ctx.get()) : EVP_PKEY_verify_recover_init(ctx.get());
    std::vector<uint8_t> out(static_cast<size_t>(EVP_PKEY_get_size(key.get())));
    size_t len = out.size();
    int padding = encrypt ? RSA_PKCS1_OAEP_PADDING : RSA_PKCS1_PADDING;
    bool ok = init == 1 && EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) == 1 &&
              (encrypt ? EVP_PKEY_encrypt(ctx.get(), out.data(), &len, in, n)
                       : EVP_PKEY_verify_recover(ctx.get(), out.data(), &len, in, n)) == 1;
    out.resize(ok ? len : 0);
    return out;
}

}  // namespace

std::string dmap_item(const std::string& tag, const std::string& value) {
    std::string s = tag;
    for (int shift = 24; shift >= 0; shift -= 8) s += char((value.size() >> shift) & 255);
    return s + value;
}

// The first byte may take seconds: the daemon loads its RSA key for each challenge and stream
// key, which is slow on the box's ARM and under emulation.
std::string recv_rtsp_reply(Client& c) {
    std::string data = c.recv_some(std::chrono::seconds(30));
    for (std::string more = "x"; !data.empty() && message_length(data) == 0 && !more.empty();
         data += more)
        more = c.recv_some(std::chrono::milliseconds(300));
    return data;
}

AirtunesSender::AirtunesSender(std::string device_id) : device_id_(std::move(device_id)) {
    RAND_bytes(aes_key.data(), 16), RAND_bytes(aes_iv.data(), 16);
}

std::string AirtunesSender::request_text(const std::string& method, const std::string& headers,
                                         const std::string& body) {
    std::string length =
        body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return method + " rtsp://192.0.2.10/1 RTSP/1.0\r\nCSeq: " + std::to_string(++cseq) +
           "\r\nX-Apple-Device-ID: " + device_id_ + "\r\n" + headers + length + "\r\n" + body;
}

std::string AirtunesSender::new_challenge() {
    RAND_bytes(challenge_.data(), 16);
    return "Apple-Challenge: " + b64(challenge_.data(), 16);
}

std::string AirtunesSender::announce() {
    std::vector<uint8_t> key = rsa_public(aes_key.data(), 16, true);
    std::string sdp =
        "v=0\r\no=iTunes 1 0 IN IP4 192.0.2.20\r\nm=audio 0 RTP/AVP 96\r\n"
        "a=rtpmap:96 AppleLossless\r\na=fmtp:96 352 0 16 40 10 14 2 255 0 0 44100\r\na=rsaaeskey:" +
        b64(key.data(), key.size()) + "\r\na=aesiv:" + b64(aes_iv.data(), 16) + "\r\n";
    // Senders leave out the challenge's "==" padding.
    std::string headers = "Content-Type: application/sdp\r\n" + new_challenge();
    return request("ANNOUNCE", headers.substr(0, headers.size() - 2) + "\r\n", sdp);
}

bool AirtunesSender::verify_apple_response(const std::string& reply) const {
    std::string value = header_value(reply, "Apple-Response");
    std::vector<uint8_t> signature(value.size());
    signature.resize(
        static_cast<size_t>(base64_decode(signature.data(), signature.size(), value.c_str())));
    std::vector<uint8_t> expected(challenge_.begin(), challenge_.end());
    for (uint8_t b : {192, 0, 2, 10, 0x02, 0x5a, 0x4f, 0x52, 0x00, 0x01}) expected.push_back(b);
    expected.resize(32, 0);  // the sandbox's eth0: its address and MAC
    return value.size() == 342 && rsa_public(signature.data(), signature.size(), false) == expected;
}

std::vector<AlacVector> alac_vectors() {
    std::vector<AlacVector> out;
    std::istringstream in(read_file(source_dir() + "/tests/data/alac/vectors.txt"));
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        AlacVector v;
        if (line.starts_with('#') ||
            !(fields >> v.name >> v.bits >> v.channels >> v.frames >> v.samples))
            continue;
        for (int value; fields >> value;) v.fmtp.push_back(value);
        out.push_back(v);
    }
    return out;
}

std::vector<Frame> load_alac_frames(const std::string& name) {
    std::string file = read_file(source_dir() + "/tests/data/alac/" + name + ".frames");
    std::vector<Frame> frames;
    for (size_t pos = 0; pos + 4 <= file.size();) {
        size_t length = 0;
        for (int i = 0; i < 4; ++i) length = length << 8 | static_cast<uint8_t>(file[pos++]);
        if (length > file.size() - pos) break;
        frames.emplace_back(file.begin() + long(pos), file.begin() + long(pos + length));
        pos += length;
    }
    return frames;
}

RtpSender::RtpSender(const std::array<uint8_t, 16>& k, const std::array<uint8_t, 16>& v,
                     const std::string& source)
    : key(k), iv(v), sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in addr{AF_INET, 0, {}, {}};
    inet_pton(AF_INET, source.c_str(), &addr.sin_addr);
    ::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
}

Frame RtpSender::encrypt(const Frame& frame) const {
    Frame out = frame;
    aes_encrypt_payload(frame.data(), out.data(), int(frame.size()), iv.data(), key.data());
    return out;
}

Frame RtpSender::packet(const Frame& frame, uint16_t seq_no, uint32_t ts, bool resend) const {
    Frame out = resend ? Frame{0x80, 0xD6, 0x00, 0x01} : Frame{};
    const uint32_t seq32 = seq_no;
    for (uint32_t b : {0x80u, 0xE0u, seq32 >> 8, seq32, ts >> 24, ts >> 16, ts >> 8, ts, 0x12u,
                       0x34u, 0x56u, 0x78u})
        out.push_back(static_cast<uint8_t>(b));
    for (uint8_t b : encrypt(frame)) out.push_back(b);
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
        std::this_thread::sleep_until(start + frame_time * double(i));
        if (!send(packet(frames[i], seq, timestamp))) return false;
    }
    return true;
}

}  // namespace zt
