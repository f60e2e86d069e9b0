// The per-packet audio path on the 16-bit stereo stream, next to its parts:
//   BM_PacketPath  airtunes_decode_packet (decrypt, decode, write) into a pipe a thread drains;
//   BM_DecodeOnly  alac_frame_decode of the same frames in clear;
//   BM_AesAndCopy  AES-128-CBC decryption of the same payloads plus a copy of their bytes.
// Counters: packets/s and rt_factor (seconds of 44.1 kHz audio handled per second).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "airtunes/audio/airtunes_audio.h"
#include "airtunes/audio/airtunes_session.h"

namespace {

constexpr double kSampleRate = 44100.0;
constexpr uint8_t kKey[16] = {0x10, 0x21, 0x32, 0x43, 0x54, 0x65, 0x76, 0x87,
                              0x98, 0xA9, 0xBA, 0xCB, 0xDC, 0xED, 0xFE, 0x0F};
constexpr uint8_t kIv[16] = {7, 7, 7, 7, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

struct stream {
    std::vector<std::vector<uint8_t>> frames;    // in clear
    std::vector<std::vector<uint8_t>> payloads;  // as a sender sends them
    std::vector<int> samples;                    // per frame
};

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

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

const stream& s16_stereo() {
    static const stream s = [] {
        stream out;
        const char* source = std::getenv("ZOR_SOURCE_DIR");
        const auto file = read_file(std::string(source != nullptr ? source : ZOR_BENCH_SOURCE_DIR) +
                                    "/tests/data/alac/s16_stereo.frames");
        for (size_t pos = 0; pos + 4 <= file.size();) {
            size_t length = (size_t{file[pos]} << 24) | (size_t{file[pos + 1]} << 16) |
                            (size_t{file[pos + 2]} << 8) | file[pos + 3];
            pos += 4;
            if (length > file.size() - pos) break;
            out.frames.emplace_back(file.begin() + pos, file.begin() + pos + length);
            pos += length;
        }
        auto d = make_decoder();
        std::vector<uint8_t> pcm(352 * 4);
        for (const auto& f : out.frames) {
            std::vector<uint8_t> p = f;
            aes_encrypt_payload(f.data(), p.data(), static_cast<int>(f.size()), kIv, kKey);
            out.payloads.push_back(std::move(p));
            int size = 0;
            alac_frame_decode(d.get(), f.data(), f.size(), pcm.data(), pcm.size(), &size);
            out.samples.push_back(size / 4);
        }
        return out;
    }();
    return s;
}

void set_counters(benchmark::State& state, long long packets, long long samples) {
    state.counters["packets/s"] =
        benchmark::Counter(static_cast<double>(packets), benchmark::Counter::kIsRate);
    state.counters["rt_factor"] =
        benchmark::Counter(static_cast<double>(samples) / kSampleRate, benchmark::Counter::kIsRate);
}

void BM_PacketPath(benchmark::State& state) {
    const stream& s = s16_stereo();
    {
        std::lock_guard<std::mutex> guard(airtunes_session.lock);
        aes_set_decrypt_key_128(&airtunes_session.aes_key, kKey);
        std::memcpy(airtunes_session.aes_iv.data(), kIv, sizeof(kIv));
        airtunes_session.decoder = make_decoder();
        airtunes_session.frame_length = 352;
    }
    int fds[2];
    if (pipe(fds) != 0) return state.SkipWithError("pipe");
    std::thread reader([fd = fds[0]] {
        std::vector<char> sink(65536);
        while (read(fd, sink.data(), sink.size()) > 0) {
        }
    });
    audio_packet_buffers buffers;
    long long packets = 0, samples = 0;
    for (auto _ : state) {
        const size_t i = static_cast<size_t>(packets) % s.payloads.size();
        const auto& p = s.payloads[i];
        benchmark::DoNotOptimize(
            airtunes_decode_packet(p.data(), static_cast<int>(p.size()), fds[1], &buffers));
        ++packets;
        samples += s.samples[i];
    }
    close(fds[1]);
    reader.join();
    close(fds[0]);
    set_counters(state, packets, samples);
}

void BM_DecodeOnly(benchmark::State& state) {
    const stream& s = s16_stereo();
    auto d = make_decoder();
    std::vector<uint8_t> pcm(352 * 4);
    long long packets = 0, samples = 0;
    for (auto _ : state) {
        const size_t i = static_cast<size_t>(packets) % s.frames.size();
        int size = 0;
        std::memset(pcm.data(), 0, pcm.size());
        alac_frame_decode(d.get(), s.frames[i].data(), s.frames[i].size(), pcm.data(), pcm.size(),
                          &size);
        benchmark::DoNotOptimize(size);
        ++packets;
        samples += s.samples[i];
    }
    set_counters(state, packets, samples);
}

void BM_AesAndCopy(benchmark::State& state) {
    const stream& s = s16_stereo();
    aes_key_schedule key;
    aes_set_decrypt_key_128(&key, kKey);
    std::vector<uint8_t> work(kRtpDatagramSize), copy(kRtpDatagramSize);
    long long packets = 0, samples = 0;
    for (auto _ : state) {
        const size_t i = static_cast<size_t>(packets) % s.payloads.size();
        const auto& p = s.payloads[i];
        const int n = static_cast<int>(p.size());
        aes_decrypt_payload(p.data(), work.data(), n, kIv, &key);
        std::memcpy(copy.data(), work.data(), p.size());
        benchmark::DoNotOptimize(copy.data());
        ++packets;
        samples += s.samples[i];
    }
    set_counters(state, packets, samples);
}

}  // namespace

BENCHMARK(BM_PacketPath);
BENCHMARK(BM_DecodeOnly);
BENCHMARK(BM_AesAndCopy);
