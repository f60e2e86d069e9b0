// ANNOUNCE: the SDP body's stream key (RSA-OAEP under the receiver's key), IV and ALAC format
// values, stored in the stream record for SETUP and the receiver.
#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "airtunes/audio/airtunes_rtsp.h"
#include "airtunes/audio/airtunes_session.h"
#include "tools/decipher/base64.h"
#include "tools/decipher/rsa.h"
#include "tools/utils/log.h"

namespace {

constexpr size_t kAttributeSize = 512;  // values up to 511 characters
constexpr size_t kCipherSize = 512;     // decoded "a=rsaaeskey:"
constexpr int kCipherLength = 256;      // cipher text of the 2048-bit key
constexpr size_t kStreamKeySize = 256;  // decrypted key (16 bytes for AES-128)
constexpr size_t kTokenSize = 10;       // fmtp tokens up to 9 characters

// Decrypts the stream key and makes aes_key its decryption schedule. The key file is read
// outside the record's lock; only the schedule's replacement happens under it. A failed
// decryption leaves the earlier key in force.
void decrypt_stream_key(int length, const uint8_t* cipher, uint8_t* out,
                        aes_key_schedule* aes_key) {
    int n = rsa_decrypt_oaep(cipher, length, out, kStreamKeySize);
    if (n <= 0) return;
    log_plain("Successfully decrypted key: %d\n", n);
    std::lock_guard<std::mutex> guard(airtunes_session.lock);
    aes_set_decrypt_key_128(aes_key, out);
}

void store_key(std::string_view sdp) {
    std::array<char, kAttributeSize> value{};
    if (!sdp_attribute(sdp, "a=rsaaeskey:", value.data(), value.size())) return;
    std::array<uint8_t, kCipherSize> cipher{};
    base64_decode(cipher.data(), cipher.size(), value.data());
    std::array<uint8_t, kStreamKeySize> key{};
    decrypt_stream_key(kCipherLength, cipher.data(), key.data(), &airtunes_session.aes_key);
}

void store_iv(std::string_view sdp) {
    std::array<char, kAttributeSize> value{};
    if (!sdp_attribute(sdp, "a=aesiv:", value.data(), value.size())) return;
    std::array<uint8_t, kAesIvStorage + 1> iv{};  // the decoder's NUL needs the extra byte
    base64_decode(iv.data(), iv.size(), value.data());
    std::lock_guard<std::mutex> guard(airtunes_session.lock);
    std::memcpy(airtunes_session.aes_iv.data(), iv.data(), kAesIvStorage);
}

void store_fmtp(std::string_view sdp) {
    std::array<int, kFmtpCount> fmtp{};
    if (!sdp_fmtp_values(sdp, &fmtp)) return;
    std::lock_guard<std::mutex> guard(airtunes_session.lock);
    airtunes_session.fmtp = fmtp;
}

int read_announce_body(net_conn* conn, int read_count, net_exchange* x, body_buffer* body) {
    switch (airtunes_read_body(conn, read_count, x, kAnnounceBodyCap, body)) {
        case kBodyOk:
            return 0;
        case kBodyShortRead:
            LOG_ERROR_NOBLANK("airtunes_reply_announce", "Invalid socket read\n");
            return -2;
        default:
            LOG_ERROR_NOBLANK("airtunes_reply_announce", "Failed to malloc\n");
            return -1;
    }
}

}  // namespace

bool sdp_attribute(std::string_view sdp, std::string_view name, char* out, size_t capacity) {
    size_t at = sdp.find(name);
    if (at == std::string_view::npos || capacity == 0) return false;
    std::string_view value = sdp.substr(at + name.size());
    value = value.substr(0, value.find("\r\n"));
    value = value.substr(0, capacity - 1);
    std::memset(out, 0, capacity);
    std::memcpy(out, value.data(), value.size());
    return true;
}

bool sdp_fmtp_values(std::string_view sdp, std::array<int, kFmtpCount>* fmtp) {
    std::array<char, kAttributeSize> value{};
    if (!sdp_attribute(sdp, "a=fmtp:", value.data(), value.size())) return false;
    log_plain("src: %s\n", value.data());
    std::string_view rest(value.data());
    for (size_t i = 0; i < fmtp->size(); ++i) {
        size_t blank = rest.find(' ');
        std::array<char, kTokenSize> token{};
        std::string_view piece = rest.substr(0, std::min(blank, kTokenSize - 1));
        std::memcpy(token.data(), piece.data(), piece.size());
        (*fmtp)[i] = std::atoi(token.data());
        if (blank == std::string_view::npos) break;
        rest.remove_prefix(blank + 1);
    }
    return true;
}

int airtunes_reply_announce(net_conn* conn, int read_count, net_exchange* x) {
    int cseq = rtsp_get_cseq(x->request.head);
    airtunes_apple_response(x->request.head, x->reply.head);
    body_buffer body;
    // A negative or non-numeric length also reads as 0; the body reader logs it as a body
    // that cannot be had, while "Content-Length: 0" and none at all end here silently.
    int read = read_announce_body(conn, read_count, x, &body);
    if (read == -1 || x->request.content_length == 0) return -1;
    int result = 0;
    if (read == 0) {
        log_tagged(zor_log::kGreen, "content:\n%s\n", body.data());
        std::string_view sdp(body.data(), static_cast<size_t>(body.size()));
        store_key(sdp);
        store_iv(sdp);
        store_fmtp(sdp);
    } else {
        result = -1;
    }
    reply_append(x->reply.head, "%s", kAudioJackLine);
    reply_append(x->reply.head, "CSeq: %d\r\n", cseq);
    reply_append(x->reply.head, "\r\n");
    return result;
}
