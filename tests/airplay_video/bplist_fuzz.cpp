// Fuzz target of the binary property-list reader. Built with clang's -fsanitize=fuzzer it
// is a libFuzzer target; built normally (as here) its main() replays the files it is given,
// e.g. a fuzzer's crash files or the corpus in bplists/.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "tools/decipher/bplist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size copy: a read past the end is a heap overflow the sanitizers see.
    std::vector<char> body(data, data + size);
    char* end = nullptr;
    float position = 0.0f;
    bplist_find_content(body.empty() ? nullptr : body.data(), static_cast<uint32_t>(size), &end,
                        &position);
    return 0;
}

#ifndef ZOR_LIBFUZZER
int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), {});
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    std::printf("replayed %d inputs\n", argc - 1);
    return 0;
}
#endif
