#include "tools/decipher/challenge.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/utils/log.h"

namespace {

constexpr const char kAddressPipeline[] =
    "ifconfig eth0 | grep 'inet addr' | cut -d':' -f2 | cut -d' ' -f1";

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

void get_ip_address(char* out) {
    FILE* pipe = popen(kAddressPipeline, "r");
    if (pipe == nullptr) return;
    if (std::fgets(out, kIpTextSize, pipe) == nullptr) out[0] = '\0';
    pclose(pipe);
}

uint32_t ipv4_text_to_bytes(const char* text) {
    uint32_t result = 0;
    const char* field = text;
    for (int i = 0; i < 4 && field != nullptr; ++i) {
        long value = std::strtol(field, nullptr, 10);
        result |= (static_cast<uint32_t>(value) & 0xffu) << (8 * i);
        field = std::strchr(field, '.');
        if (field != nullptr) ++field;
    }
    return result;
}

int atoh(const char* text, int count, int order) {
    int sum = 0;
    int weight = 1;
    int previous = 0;
    for (int i = 0; i < count; ++i) {
        char c = order == 1 ? text[i] : text[count - 1 - i];
        int digit = hex_digit(c);
        if (digit < 0) {
            log_tagged(zor_log::kYellow, "unsupported character found inside atoh(%c)\n", c);
            digit = previous;
        }
        sum += digit * weight;
        weight *= 16;
        previous = digit;
    }
    return sum;
}

int challenge_message(const uint8_t* challenge, int n, const char* ip_text, const char* mac_text,
                      uint8_t* out) {
    std::memset(out, 0, kChallengeMessageCapacity);
    int length = n < 0 ? 0 : (n > kChallengeMaxBytes ? kChallengeMaxBytes : n);
    std::memcpy(out, challenge, static_cast<size_t>(length));
    uint32_t ip = ipv4_text_to_bytes(ip_text);
    for (int i = 0; i < 4; ++i) out[length++] = static_cast<uint8_t>(ip >> (8 * i));
    size_t mac_len = strnlen(mac_text, 17);
    for (size_t i = 0; i < 6; ++i) {
        // A short MAC text (sysfs cut it off) gives zero octets, never a read past it.
        out[length++] =
            3 * i + 2 <= mac_len ? static_cast<uint8_t>(atoh(mac_text + 3 * i, 2, 0) & 0xff) : 0;
    }
    return length < kChallengeMessageSize ? kChallengeMessageSize : length;
}
