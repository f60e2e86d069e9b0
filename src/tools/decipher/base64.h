// Standard Base64 (alphabet A-Z, a-z, 0-9, "+", "/"), as RTSP headers and SDP attributes carry
// the challenge, the answer, the stream key and the IV.
#pragma once

#include <cstddef>
#include <cstdint>

// Decodes the leading run of alphabet characters of the NUL-terminated text (the run ends at
// the first other byte: "=", CR, LF, a blank, the NUL) into out and writes a NUL after the
// bytes. Returns the bytes decoded, floor(3 * run / 4), cut to capacity - 1 so that neither
// the bytes nor the NUL ever pass capacity. A capacity of 0 decodes nothing and returns 0.
int base64_decode(uint8_t* out, size_t capacity, const char* text);

// Encodes count bytes with "=" padding and no line breaks into out, NUL-terminated.
// Returns the text length plus one, or -1 (out untouched) when capacity cannot hold the text
// and its NUL.
int base64_encode(char* out, size_t capacity, const uint8_t* in, int count);
