#include "tools/decipher/address.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

constexpr const char kMacFile[] = "/sys/class/net/eth0/address";

// The process-wide MAC text. The AirPlay and AirTunes threads both refresh it, so it is
// only touched under its lock; callers get a private copy to read at leisure.
std::mutex mac_lock;
char mac_address_text[kMacTextLength + 1] = "00:00:00:00:00:00";

}  // namespace

const char* read_mac_address() {
    char line[256] = {};
    bool have_line = false;
    if (FILE* f = std::fopen(kMacFile, "r")) {
        have_line = std::fgets(line, sizeof(line), f) != nullptr;
        std::fclose(f);
    }

    thread_local char copy[kMacTextLength + 1];
    std::lock_guard<std::mutex> guard(mac_lock);
    if (have_line) {
        // The first 17 characters of the line; a shorter line leaves a shorter text.
        std::memset(mac_address_text, 0, sizeof(mac_address_text));
        std::memcpy(mac_address_text, line, strnlen(line, kMacTextLength));
    }
    std::memcpy(copy, mac_address_text, sizeof(copy));
    return copy;
}
