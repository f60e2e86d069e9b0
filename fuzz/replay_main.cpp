// The fuzz targets' main() outside libFuzzer: replays every file given, or every file in a
// directory given, through LLVMFuzzerTestOneInput once. The test suite runs it over each
// target's committed corpus, so a fixed finding stays fixed without clang.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replay_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
    }
    // An exact-size heap copy, so that a read past the end is one the sanitizers see.
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), {});
    LLVMFuzzerTestOneInput(data.data(), data.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int replayed = 0;
    int failed = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path arg(argv[i]);
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(arg)) {
            for (const auto& entry : std::filesystem::directory_iterator(arg))
                if (entry.is_regular_file()) files.push_back(entry.path());
        } else {
            files.push_back(arg);
        }
        for (const auto& f : files) {
            failed += replay_file(f);
            ++replayed;
        }
    }
    std::fprintf(stderr, "replayed %d inputs\n", replayed - failed);
    return failed == 0 && replayed > 0 ? 0 : 1;
}
