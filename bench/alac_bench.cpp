// Decoding speed of alac_frame_decode on the committed streams, each with the fmtp values
// listed for it in tests/data/alac/vectors.txt.
// Counters: frames/s, and rt_factor = seconds of 44.1 kHz audio decoded per second
// (the audio path needs 1; one core should give hundreds).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "alac/alac.h"

namespace {

constexpr size_t kWorkBufferBytes = 2048;  // the audio receiver's buffer
constexpr double kSampleRate = 44100.0;

std::string data_dir() {
    const char* source = std::getenv("ZOR_SOURCE_DIR");
    return std::string(source != nullptr ? source : ZOR_BENCH_SOURCE_DIR) + "/tests/data/alac/";
}

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// Each frame in its own zero-filled work buffer, as the audio path hands it over.
std::vector<std::vector<uint8_t>> load_frames(const std::string& name) {
    const std::vector<uint8_t> file = read_file(data_dir() + name + ".frames");
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

// A two-channel decoder, as the audio path makes, set up with the stream's fmtp values
// (vectors.txt: name, bits, channels, frames, samples, then the twelve numbers).
std::unique_ptr<alac_decoder> make_decoder(const std::string& name) {
    std::ifstream list(data_dir() + "vectors.txt");
    for (std::string line; std::getline(list, line);) {
        std::istringstream fields(line);
        std::string field;
        int fmtp[12];
        fields >> field;
        if (field != name) continue;
        for (int skip = 0; skip < 4; ++skip) fields >> field;
        for (int& value : fmtp) fields >> value;
        if (!fields) break;
        std::unique_ptr<alac_decoder> d = alac_decoder_new(fmtp[3], 2);
        if (!d) break;
        alac_decoder_set_parameters(d.get(), fmtp);
        if (!alac_decoder_set_buffers(d.get())) break;
        return d;
    }
    return nullptr;
}

void decode_stream(benchmark::State& state, const std::string& name) {
    const auto frames = load_frames(name);
    auto decoder = make_decoder(name);
    if (frames.empty() || !decoder) {
        state.SkipWithError(("no frames or fmtp values for " + name).c_str());
        return;
    }
    std::vector<uint8_t> out((decoder->frame_length + 3) * 2 * 4);
    int64_t samples = 0;
    int64_t decoded_frames = 0;
    for (auto _ : state) {
        for (const auto& frame : frames) {
            int size = 0;
            alac_frame_decode(decoder.get(), frame.data(), frame.size(), out.data(), out.size(),
                              &size);
            benchmark::DoNotOptimize(out.data());
            samples += size / decoder->bytes_per_frame;
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
BENCHMARK_CAPTURE(decode_stream, s16_mono, std::string("s16_mono"));
BENCHMARK_CAPTURE(decode_stream, s24_stereo, std::string("s24_stereo"));
BENCHMARK_CAPTURE(decode_stream, s24_mono, std::string("s24_mono"));

}  // namespace
