// Helpers every RTSP handler shares: the request text, CSeq, bounded reply lines, body
// reading with the service's caps, and the Apple-Challenge answer.
#include "airtunes/audio/airtunes_rtsp.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/decipher/address.h"
#include "tools/decipher/base64.h"
#include "tools/decipher/challenge.h"
#include "tools/decipher/rsa.h"
#include "tools/utils/log.h"

namespace {

constexpr std::string_view kChallengeKey = "Apple-Challenge: ";
constexpr std::string_view kContentLength = "Content-Length:";
// A 2048-bit signature is 342 characters; room for keys up to 4096 bits.
constexpr size_t kAnswerSize = 700;

// Whether a Content-Length header, if present, starts with a digit after its blanks.
bool content_length_is_number(std::string_view head) {
    size_t at = head.find(kContentLength);
    if (at == std::string_view::npos) return true;
    size_t i = at + kContentLength.size();
    while (i < head.size() && (head[i] == ' ' || head[i] == '\t')) ++i;
    return i < head.size() && head[i] >= '0' && head[i] <= '9';
}

}  // namespace

std::string_view request_text(const net_exchange* x) {
    return std::string_view(x->request.head, strnlen(x->request.head, sizeof(x->request.head)));
}

int rtsp_get_cseq(const char* head) {
    if (head == nullptr) return 0;
    const char* at = std::strstr(head, "CSeq: ");
    if (at == nullptr) return 0;
    long value = std::strtol(at + 6, nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

void reply_append(char* text, const char* fmt, ...) {
    size_t used = strnlen(text, kTextSize - 1);
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text + used, kTextSize - used, fmt, args);
    va_end(args);
}

int airtunes_apple_response(const char* head, char* reply_head) {
    if (head == nullptr || reply_head == nullptr) return -1;
    std::string_view text(head, strnlen(head, kTextSize));
    size_t at = text.find(kChallengeKey);
    if (at == std::string_view::npos) return 0;

    std::array<char, kChallengeTextLength + 1> challenge_text{};
    std::string_view value = text.substr(at + kChallengeKey.size(), kChallengeTextLength);
    std::memcpy(challenge_text.data(), value.data(), value.size());
    std::array<uint8_t, kChallengeMaxBytes + 1> challenge{};
    int n = base64_decode(challenge.data(), challenge.size(), challenge_text.data());

    std::array<char, kIpTextSize> ip{};
    get_ip_address(ip.data());
    std::array<uint8_t, kChallengeMessageCapacity> message{};
    int length =
        challenge_message(challenge.data(), n, ip.data(), read_mac_address(), message.data());

    std::array<char, kAnswerSize> answer{};
    if (!rsa_sign_base64(length, message.data(), answer.data(), answer.size())) {
        log_tagged(zor_log::kRed, "Apple-Challenge left unanswered: no signature\n");
        return 0;
    }
    reply_append(reply_head, "Apple-Response: %s\r\n", answer.data());
    return 0;
}

int airtunes_read_body(net_conn* conn, int read_count, const net_exchange* x, int cap,
                       body_buffer* body) {
    int result = content_length_is_number(request_text(x))
                     ? read_body_whole(conn, &x->request, read_count, cap, body)
                     : kBodyTooLarge;
    if (result == kBodyTooLarge) conn->close_after = true;
    return result;
}

void remove_if_exists(const char* path) {
    if (access(path, F_OK) == 0) std::remove(path);
}
