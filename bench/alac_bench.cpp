// Decoding speed of alac_frame_decode on the committed 16-bit stereo streams.
// Counters: frames/s, and rt_factor = seconds of 44.1 kHz audio decoded per second
// (the audio path needs 1; one core should give hundreds).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "alac/alac.h"

namespace {

constexpr size_t kWorkBufferBytes = 2048;  // the audio receiver's buffer
constexpr double kSampleRate = 44100.0;

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// Each frame in its own zero-filled work buffer, as the audio path hands it over.
std::vector<std::vector<uint8_t>> load_frames(const std::string& name) {
    const char* source = std::getenv("ZOR_SOURCE_DIR");
    const std::string path = std::string(source != nullptr ? source : ZOR_BENCH_SOURCE_DIR) +
                             "/tests/data/alac/" + name + ".frames";
    const std::vector<uint8_t> file = read_file(path);
    std::vector<std::vector<uint8_t>> frames;
    for (size_t pos = 0; pos + 4 <= file.size();) {
        const size_t length = (size_t{file[pos]} << 24) | (size_t{file[pos + 1]} << 16) |
                              (size_t{file[pos + 2]} << 8) | file[pos + 3];
        pos += 4;
        if (length > file.size() - pos || length > kWorkBufferBytes) break;
        std::vector<uint8_t> work(kWorkBufferBytes, 0);
        std::copy(file.begin() + pos, file.begin() + pos + length, work.begin());
        frames.push_back(std::move(work));
        pos += length;
    }
    return frames;
}

// The usual AirTunes stream: 352 samples a frame, Rice parameters 40, 10, 14.
std::unique_ptr<alac_decoder> make_decoder() {
    std::unique_ptr<alac_decoder> d = alac_decoder_new(16, 2);
    d->frame_length = 352;
    d->bit_depth = 16;
    d->rice_history_mult = 40;
    d->rice_initial_history = 10;
    d->rice_limit = 14;
    alac_decoder_set_buffers(d.get());
    return d;
}

void decode_stream(benchmark::State& state, const std::string& name) {
    const auto frames = load_frames(name);
    if (frames.empty()) {
        state.SkipWithError(("no frames for " + name).c_str());
        return;
    }
    auto decoder = make_decoder();
    std::vector<uint8_t> out((decoder->frame_length + 3) * 2 * 4);
    int64_t samples = 0;
    int64_t decoded_frames = 0;
    for (auto _ : state) {
        for (const auto& frame : frames) {
            int size = 0;
            alac_frame_decode(decoder.get(), frame.data(), frame.size(), out.data(), out.size(),
                              &size);
            benchmark::DoNotOptimize(out.data());
            samples += size / 4;
            ++decoded_frames;
        }
    }
    state.counters["frames/s"] =
        benchmark::Counter(static_cast<double>(decoded_frames), benchmark::Counter::kIsRate);
    state.counters["rt_factor"] =
        benchmark::Counter(static_cast<double>(samples) / kSampleRate, benchmark::Counter::kIsRate);
}

BENCHMARK_CAPTURE(decode_stream, s16_stereo, std::string("s16_stereo"));
BENCHMARK_CAPTURE(decode_stream, s16_stereo_order30, std::string("s16_stereo_order30"));
BENCHMARK_CAPTURE(decode_stream, s16_stereo_order1_30, std::string("s16_stereo_order1_30"));
BENCHMARK_CAPTURE(decode_stream, s16_stereo_verbatim, std::string("s16_stereo_verbatim"));

}  // namespace
