// The ANNOUNCE body: the SDP attributes it takes (stream key, IV, format values) and the
// Base64 decoding of the key and the IV into buffers of the handler's sizes.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "airtunes/audio/airtunes_rtsp.h"
#include "tools/decipher/base64.h"

namespace {
constexpr size_t kAttributeSize = 512;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view sdp(reinterpret_cast<const char*>(data), size);
    std::array<char, kAttributeSize> value{};
    if (sdp_attribute(sdp, "a=rsaaeskey:", value.data(), value.size())) {
        std::array<uint8_t, 512> cipher{};
        if (base64_decode(cipher.data(), cipher.size(), value.data()) >= int{cipher.size()})
            __builtin_trap();
    }
    if (sdp_attribute(sdp, "a=aesiv:", value.data(), value.size())) {
        std::array<uint8_t, kAesIvStorage + 1> iv{};
        base64_decode(iv.data(), iv.size(), value.data());
    }
    std::array<int, kFmtpCount> fmtp{};
    sdp_fmtp_values(sdp, &fmtp);
    return 0;
}
