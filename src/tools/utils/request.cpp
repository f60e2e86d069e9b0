#include "tools/utils/request.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/utils/log.h"

namespace {

constexpr int kReadLimit = kTextSize - 1;  // the buffer always keeps a closing zero byte
constexpr const char kEndOfHeaders[] = "\r\n\r\n";
constexpr const char kContentLength[] = "Content-Length:";

// Decimal value after "Content-Length:": leading blanks skipped, digits up to the first
// non-digit, 0 when there are none. Saturates instead of overflowing.
int parse_content_length(const char* p) {
    while (*p == ' ' || *p == '\t') ++p;
    long long value = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        value = value * 10 + (*p - '0');
        if (value > 0x7fffffff) return 0x7fffffff;
    }
    return static_cast<int>(value);
}

}  // namespace

void net_message_clear(net_message* msg) {
    std::memset(msg, 0, sizeof(*msg));
}

void net_exchange_clear(net_exchange* x) {
    std::memset(x, 0, sizeof(*x));
}

int read_request(int sock, net_message* msg) {
    std::array<char, kTextSize> buffer{};
    msg->header_len = 0;
    msg->content_length = 0;

    int total = 0;
    ssize_t last = 0;
    char* end = nullptr;
    for (;;) {
        last = read(sock, buffer.data() + total, static_cast<size_t>(kReadLimit - total));
        if (last < 0 && errno == EINTR) continue;
        if (last <= 0) {
            log_tagged(zor_log::kBlue, "Read from sockfd failed(%d) from sockfd(%d)\n",
                       static_cast<int>(last), sock);
            break;
        }
        total += static_cast<int>(last);
        end = find_bounded(buffer.data(), kEndOfHeaders, kReadLimit);
        if (end != nullptr) break;
    }

    if (end != nullptr) {
        msg->header_len = static_cast<int>(end - buffer.data()) + 4;
        char* cl = find_bounded(buffer.data(), kContentLength, msg->header_len);
        msg->content_length = cl ? parse_content_length(cl + sizeof(kContentLength) - 1) : 0;
        std::memcpy(msg->body, buffer.data() + msg->header_len, total - msg->header_len);
    }
    if (total == 0) return static_cast<int>(last);
    if (end == nullptr) msg->header_len = total;
    std::memcpy(msg->head, buffer.data(), msg->header_len);
    return total;
}

char* find_bounded(char* buffer, const char* needle, size_t size) {
    if (buffer == nullptr || size == 0) return nullptr;
    char saved = buffer[size - 1];
    buffer[size - 1] = '\0';
    char* match = std::strstr(buffer, needle);
    buffer[size - 1] = saved;
    return match;
}

const char* status_reason(int status) {
    if (status == 200) return "OK";
    if (status == 501) return "Not Implemented";
    if (status == 101) return "Switching Protocols";
    return "Unknown";
}
