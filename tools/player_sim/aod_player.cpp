#include "aod_player.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

#include "sim_util.h"

namespace sim {

namespace {

constexpr long long kMaxWavData = 512LL << 20;  // keeps counting beyond, stops writing
constexpr int kOpenWaitMs = 3000;               // how long start_aod waits for the FIFO to appear

void put_le(std::string* out, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) out->push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

std::string wav_header(uint32_t data_bytes) {
    std::string h = "RIFF";
    put_le(&h, 36 + data_bytes, 4);
    h += "WAVEfmt ";
    put_le(&h, 16, 4);
    put_le(&h, 1, 2);          // PCM
    put_le(&h, 2, 2);          // channels
    put_le(&h, 44100, 4);      // sample rate
    put_le(&h, 44100 * 4, 4);  // byte rate
    put_le(&h, 4, 2);          // block align
    put_le(&h, 16, 2);         // bits per sample
    h += "data";
    put_le(&h, data_bytes, 4);
    return h;
}

// Rewrites the header so the file is a valid WAV at every moment, not only at the end.
void update_header(int fd, long long data_bytes) {
    std::string h = wav_header(static_cast<uint32_t>(data_bytes & ~1LL));
    if (::pwrite(fd, h.data(), h.size(), 0) != static_cast<ssize_t>(h.size()))
        say("aod: cannot update the WAV header");
}

}  // namespace

AodPlayer::AodPlayer(std::string fifo_path, std::string wav_path)
    : fifo_path_(std::move(fifo_path)), wav_path_(std::move(wav_path)) {}

void AodPlayer::start() {
    std::lock_guard<std::mutex> control(control_);
    if (reader_.joinable()) {
        cancel_ = true;
        while (phase_.load() == Phase::opening) release_open();
        reader_.join();
    }
    cancel_ = false;
    bytes_ = 0;
    phase_ = Phase::opening;
    reader_ = std::thread(&AodPlayer::reader_main, this);
}

// A reader blocked in a FIFO's open() returns once a writer opens it; opening the write
// end ourselves (non-blocking, closed at once) lets it return and see the cancel.
void AodPlayer::release_open() {
    int fd = ::open(fifo_path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) ::close(fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

void AodPlayer::stop() {
    std::lock_guard<std::mutex> control(control_);
    if (!reader_.joinable()) return;
    cancel_ = true;
    while (phase_.load() == Phase::opening) release_open();
    reader_.join();
}

void AodPlayer::reader_main() {
    Fd wav(::open(wav_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!wav.ok()) say("aod: cannot create " + wav_path_ + ": " + strerror(errno));
    if (wav.ok()) write_all(wav.get(), wav_header(0));
    struct stat st;
    for (int waited = 0; ::stat(fifo_path_.c_str(), &st) != 0 && waited < kOpenWaitMs;
         waited += 20) {
        if (cancel_.load()) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    Fd in(cancel_.load() ? -1 : ::open(fifo_path_.c_str(), O_RDONLY | O_CLOEXEC));
    phase_ = Phase::waiting_data;
    if (!in.ok()) {
        if (!cancel_.load()) say("aod: cannot open " + fifo_path_ + ": " + strerror(errno));
        phase_ = Phase::ended;
        return;
    }
    say("aod: " + fifo_path_ + " opened, waiting for PCM");
    char buf[65536];
    while (!cancel_.load()) {
        if (stalled_.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        pollfd p{in.get(), POLLIN, 0};
        int r = ::poll(&p, 1, 100);
        if (r == 0 || (r < 0 && errno == EINTR)) continue;
        ssize_t n = ::read(in.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // the writer closed: the stream has ended
        if (phase_.load() == Phase::waiting_data) say("aod: PCM is flowing, playing");
        phase_ = Phase::playing;
        long long before = bytes_.fetch_add(n);
        if (wav.ok() && before < kMaxWavData) {
            write_all(wav.get(), std::string_view(buf, static_cast<size_t>(n)));
            update_header(wav.get(), std::min(before + n, kMaxWavData));
        }
    }
    phase_ = Phase::ended;
    say("aod: stopped after " + std::to_string(bytes_.load()) + " PCM bytes");
}

void AodPlayer::force_status(const std::string& status) {
    std::lock_guard<std::mutex> lock(mutex_);
    forced_status_ = status;
}

AodInfo AodPlayer::info() const {
    AodInfo i;
    i.bytes = bytes_.load();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        i.status = forced_status_;
    }
    if (!i.status.empty()) return i;
    switch (phase_.load()) {
        case Phase::opening:
        case Phase::waiting_data:
            i.status = "buffering";
            break;
        case Phase::playing:
            i.status = "play";
            break;
        default:
            i.status = "stop";
            break;
    }
    return i;
}

}  // namespace sim
