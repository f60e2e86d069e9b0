#include "tools/decipher/base64.h"

#include <array>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t kOutside = 0xff;

constexpr std::array<uint8_t, 256> make_table() {
    std::array<uint8_t, 256> t{};
    for (auto& v : t) v = kOutside;
    for (uint8_t i = 0; i < 64; ++i) t[static_cast<uint8_t>(kAlphabet[i])] = i;
    return t;
}
constexpr std::array<uint8_t, 256> kTable = make_table();

uint8_t value_of(char c) {
    return kTable[static_cast<uint8_t>(c)];
}

}  // namespace

int base64_decode(uint8_t* out, size_t capacity, const char* text) {
    if (capacity == 0) return 0;
    size_t run = 0;
    while (value_of(text[run]) != kOutside) ++run;
    size_t limit = capacity - 1;
    size_t written = 0;
    uint32_t bits = 0;
    int held = 0;  // bits gathered in `bits` not yet emitted
    for (size_t i = 0; i < run && written < limit; ++i) {
        bits = (bits << 6) | value_of(text[i]);
        held += 6;
        if (held >= 8) {
            held -= 8;
            out[written++] = static_cast<uint8_t>(bits >> held);
        }
    }
    out[written] = 0;
    return static_cast<int>(written);
}

int base64_encode(char* out, size_t capacity, const uint8_t* in, int count) {
    if (count < 0) return -1;
    size_t n = static_cast<size_t>(count);
    size_t needed = (n + 2) / 3 * 4 + 1;
    if (capacity < needed) return -1;
    size_t o = 0;
    for (size_t i = 0; i < n; i += 3) {
        uint32_t group = static_cast<uint32_t>(in[i]) << 16;
        if (i + 1 < n) group |= static_cast<uint32_t>(in[i + 1]) << 8;
        if (i + 2 < n) group |= in[i + 2];
        out[o++] = kAlphabet[(group >> 18) & 63];
        out[o++] = kAlphabet[(group >> 12) & 63];
        out[o++] = i + 1 < n ? kAlphabet[(group >> 6) & 63] : '=';
        out[o++] = i + 2 < n ? kAlphabet[group & 63] : '=';
    }
    out[o] = '\0';
    return static_cast<int>(o + 1);
}
