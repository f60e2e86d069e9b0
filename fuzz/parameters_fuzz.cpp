// SET_PARAMETER's bodies: the DMAP track metadata and the "volume: " text, read as the
// handler reads them (the volume's number after its first 8 characters).
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "airtunes/audio/airtunes_rtsp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Exact-size copy, so that the parser's reads past the body are heap overflows.
    std::vector<uint8_t> body(data, data + size);
    std::array<char, 256> line{};
    int n = airtunes_dmap_line(body.data(), body.size(), line.data());
    if (n < 0 || n > 255 || std::strlen(line.data()) != static_cast<size_t>(n)) __builtin_trap();

    // The volume text as the body buffer holds it: NUL-terminated.
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    if (size >= 8) {
        int volume = airtunes_volume_to_box(std::strtod(text.data() + 8, nullptr));
        if (volume < -15) __builtin_trap();  // no upper clamp: a sender above 0 dB goes above 0
    }
    return 0;
}
