#include "airplay/video/airplay_video_url.h"

#include <cstring>
#include <string_view>

namespace {

// URLs already routed through a port-7000 proxy are passed on as they are.
constexpr std::string_view kVerbatim[] = {
    "http://127.0.0.1:7000/proxy?url=",
    "http://127.0.0.1:7000/proxy?useragent=Quicktime&url=",
};

bool is_alnum(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

}  // namespace

bool airplay_url_encode(const char* src, char* dst, size_t size) {
    if (size == 0) return false;
    constexpr char kHex[] = "0123456789ABCDEF";
    std::string_view rest(src);
    size_t used = 0;
    const size_t room = size - 1;  // the last byte is kept for the NUL
    while (!rest.empty()) {
        std::string_view piece;
        char escaped[3];
        unsigned char c = static_cast<unsigned char>(rest.front());
        size_t consumed = 1;
        for (std::string_view prefix : kVerbatim)
            if (rest.starts_with(prefix)) piece = prefix, consumed = prefix.size();
        if (piece.empty() && is_alnum(c)) {
            piece = rest.substr(0, 1);
        } else if (piece.empty() && c == ' ') {
            piece = "+";
        } else if (piece.empty()) {
            escaped[0] = '%', escaped[1] = kHex[c >> 4], escaped[2] = kHex[c & 0x0f];
            piece = std::string_view(escaped, 3);
        }
        if (piece.size() > room - used) break;
        std::memcpy(dst + used, piece.data(), piece.size());
        used += piece.size();
        rest.remove_prefix(consumed);
    }
    dst[used] = '\0';
    return rest.empty();
}
