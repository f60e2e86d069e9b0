// The binary property-list reader of POST /play bodies.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/decipher/bplist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size copy: the reader may narrow a location in place, and a read past the end
    // is a heap overflow the sanitizers see.
    std::vector<char> body(data, data + size);
    char* end = nullptr;
    float position = 0.0f;
    char* location = bplist_find_content(body.empty() ? nullptr : body.data(),
                                         static_cast<uint32_t>(size), &end, &position);
    if (location != nullptr && (location < body.data() || end < location ||
                                end > body.data() + body.size()))
        __builtin_trap();
    return 0;
}
