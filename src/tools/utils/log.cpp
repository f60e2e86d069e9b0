#include "tools/utils/log.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr const char* kTag = "[ZOR_AIRPLAY] ";
constexpr const char* kReset = "\x1b[0m";

// Formats into a string so the line reaches stdout in one fwrite: lines from five threads
// must never interleave mid-line.
std::string format_message(const char* fmt, va_list args) {
    std::array<char, 1024> small{};
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small.data(), small.size(), fmt, copy);
    va_end(copy);
    if (n < 0) return {};
    if (static_cast<size_t>(n) < small.size()) return std::string(small.data(), n);
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(big.data(), big.size(), fmt, args);
    big.resize(static_cast<size_t>(n));
    return big;
}

void write_line(std::string line) {
    if (line.empty() || line.back() != '\n') line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
}

}  // namespace

void log_init() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void log_tagged(const char* color, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string msg = format_message(fmt, args);
    va_end(args);
    write_line(std::string(color) + kTag + kReset + msg);
}

void log_plain(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string msg = format_message(fmt, args);
    va_end(args);
    write_line(std::move(msg));
}

void log_text(const char* text) {
    write_line(text ? std::string(text) : std::string());
}
