// The Apple-Challenge answer's inputs: the header value's Base64 (cut to 24 characters as
// the handler cuts it), the address texts it signs, and Base64 both ways. The input is
// split at its first two NUL bytes into challenge text, IPv4 text and MAC text.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tools/decipher/base64.h"
#include "tools/decipher/challenge.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string input(reinterpret_cast<const char*>(data), size);
    std::string challenge_text = input.substr(0, input.find('\0'));
    size_t at = challenge_text.size() + 1;
    std::string ip = at < size ? input.substr(at, input.find('\0', at) - at) : std::string();
    at += ip.size() + 1;
    std::string mac = at < size ? input.substr(at) : std::string("00:00:00:00:00:00");

    std::array<uint8_t, kChallengeMaxBytes + 1> challenge{};
    int n = base64_decode(challenge.data(), challenge.size(),
                          challenge_text.substr(0, kChallengeTextLength).c_str());
    std::array<uint8_t, kChallengeMessageCapacity> message{};
    int length = challenge_message(challenge.data(), n, ip.substr(0, kIpTextSize - 1).c_str(),
                                   mac.c_str(), message.data());
    if (length < 0 || length > kChallengeMessageCapacity) __builtin_trap();

    // What Base64 encodes it decodes back, whatever the bytes.
    std::array<char, 96> text{};
    std::array<uint8_t, 96> back{};
    size_t count = std::min(size, size_t{64});
    if (base64_encode(text.data(), text.size(), data, static_cast<int>(count)) < 0 ||
        base64_decode(back.data(), back.size(), text.data()) != static_cast<int>(count) ||
        std::memcmp(back.data(), data, count) != 0)
        __builtin_trap();
    return 0;
}
