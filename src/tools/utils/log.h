// Log lines of the daemon: standard output, one message per line, each written whole.
#pragma once

#include <cstdarg>

namespace zor_log {
inline constexpr const char* kGreen = "\x1b[1;32m";   // progress
inline constexpr const char* kRed = "\x1b[1;31m";     // failures
inline constexpr const char* kYellow = "\x1b[1;33m";  // warnings
inline constexpr const char* kBlue = "\x1b[1;34m";    // end of connection, AirTunes notices
}  // namespace zor_log

// Writes colour, "[ZOR_AIRPLAY] ", the reset escape and the formatted message as one write.
// A message without a final line feed gets one, so lines never run together.
void log_tagged(const char* color, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Writes the formatted message as a plain line (no colour, no tag), with the same rules.
void log_plain(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Writes a text of any length (a request, a body) followed by a line feed, as one write.
void log_text(const char* text);

// Makes standard output line-buffered; called once at start.
void log_init();

// Error lines that carry their source location, with the function named as the design
// names it (func), never an internal helper's name. Two forms exist, and each macro's name
// says which one it prints:
//   LOG_ERROR_BLANK:   "Error [File:..." (with a blank), the entry and socket code;
//   LOG_ERROR_NOBLANK: "Error[File:..." (no blank), the player client and the media handlers.
#define LOG_ERROR_BLANK(func, fmt, ...) \
    log_plain("Error [File:%s][funct:%s][line:%d] " fmt, __FILE__, func, __LINE__, ##__VA_ARGS__)
#define LOG_ERROR_NOBLANK(func, fmt, ...) \
    log_plain("Error[File:%s][funct:%s][line:%d] " fmt, __FILE__, func, __LINE__, ##__VA_ARGS__)
