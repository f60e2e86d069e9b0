#include "vod_player.h"

#include <algorithm>

#include "http_fetch.h"
#include "sim_util.h"

namespace sim {

namespace {
// The header line by which the box's player names itself after its first request.
constexpr char kPlayerAgent[] = "User-Agent: ZorBoxPlayer/1.0\r\n";
}  // namespace

VodPlayer::VodPlayer(long duration_s, std::string fail_status)
    : duration_s_(duration_s), fail_status_(std::move(fail_status)) {}

long long VodPlayer::position_ms(Clock::time_point now) const {
    bool running = loaded_ && have_data_ && !paused_ && !failed_;
    long long pos = base_pos_ms_;
    if (running)
        pos += std::chrono::duration_cast<std::chrono::milliseconds>(now - base_time_).count();
    return std::clamp(pos, 0LL, duration_s_ * 1000LL);
}

// Called before anything that starts or stops the clock, so elapsed time is kept.
void VodPlayer::rebase() {
    auto now = Clock::now();
    base_pos_ms_ = position_ms(now);
    base_time_ = now;
}

std::string VodPlayer::simulated_status(long long pos_ms) const {
    if (!loaded_) return "stop";
    if (failed_) return fail_status_;
    if (paused_) return "pause";
    if (!have_data_) return "buffering";
    if (pos_ms >= duration_s_ * 1000LL) return "stop";  // played to the end
    return "play";
}

void VodPlayer::cancel_fetch() {
    if (cancel_) *cancel_ = true;
    if (fetch_.joinable()) fetch_.join();
    cancel_.reset();
}

void VodPlayer::start(const std::string& url, double fraction) {
    std::lock_guard<std::mutex> control(control_);
    cancel_fetch();
    unsigned generation;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        generation = ++generation_;
        loaded_ = true;
        have_data_ = paused_ = failed_ = false;
        base_pos_ms_ = static_cast<long long>(std::clamp(fraction, 0.0, 1.0) * duration_s_ * 1000);
        base_time_ = Clock::now();
        bytes_ = 0;
        url_ = url;
    }
    pending_seek_.store(-1);
    cancel_ = std::make_shared<std::atomic<bool>>(false);
    fetch_ = std::thread(&VodPlayer::fetch_main, this, url, generation, cancel_);
}

void VodPlayer::fetch_main(std::string url, unsigned generation,
                           std::shared_ptr<std::atomic<bool>> cancel) {
    auto on_body = [&](size_t n) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (generation != generation_) return;
        if (!have_data_) {
            rebase();
            have_data_ = true;
            say("vod: first media bytes arrived, playing");
        }
        bytes_ += static_cast<long long>(n);
    };
    auto fail = [&](const std::string& why) {
        say("vod: fetch of " + url + " failed: " + why);
        std::lock_guard<std::mutex> lock(mutex_);
        if (generation == generation_ && !have_data_ && !cancel->load()) failed_ = true;
    };
    StopCheck cancelled = [&] { return cancel->load(); };
    HttpUrl u;
    if (!split_http_url(url, &u)) return fail("not an http:// URL");
    std::string error;
    // The box's player opens a media URL with a plain GET, then checks it with a HEAD of
    // its own on a second connection while the first one streams.
    std::vector<std::unique_ptr<HttpStream>> streams;
    streams.push_back(std::make_unique<HttpStream>());
    if (!streams.back()->open(u, "GET", "Accept: */*\r\n", cancelled, &error)) return fail(error);
    long long total = streams.back()->content_length();
    std::thread check([&u, &url, cancel] {
        auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        StopCheck stop = [&] {
            return cancel->load() || std::chrono::steady_clock::now() > give_up;
        };
        HttpStream head;
        std::string why;
        if (!head.open(u, "HEAD", kPlayerAgent, stop, &why))
            say("vod: HEAD of " + url + " failed: " + why);
    });
    stream_and_seek(u, total, &streams, cancel, on_body);
    check.join();
}

// Reads the current stream; a seek leaves it open and unread (as the box's player does) and
// asks a new connection for the range from the byte in proportion to the target time.
void VodPlayer::stream_and_seek(const HttpUrl& u, long long total,
                                std::vector<std::unique_ptr<HttpStream>>* streams,
                                const std::shared_ptr<std::atomic<bool>>& cancel,
                                const std::function<void(size_t)>& on_body) {
    StopCheck cancelled = [&] { return cancel->load(); };
    StopCheck interrupted = [&] { return cancel->load() || pending_seek_.load() >= 0; };
    std::vector<char> buf(65536);
    bool reading = true;
    while (!cancel->load()) {
        if (reading) {
            ssize_t n = streams->back()->read_body(buf.data(), buf.size(), interrupted);
            if (n > 0) {
                on_body(static_cast<size_t>(n));
                continue;
            }
            if (n == 0) say("vod: fetched " + std::to_string(streams->back()->content_length()) +
                            " bytes of " + u.path);
            reading = n < 0 && pending_seek_.load() >= 0;
        }
        long long seconds = pending_seek_.exchange(-1);
        if (seconds < 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        long duration;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            duration = std::max(1L, duration_s_);
        }
        long long offset = total > 0 ? std::clamp(total * seconds / duration, 0LL, total - 1) : 0;
        std::string error;
        streams->push_back(std::make_unique<HttpStream>());
        reading = streams->back()->open(
            u, "GET",
            std::string(kPlayerAgent) + "Accept: */*\r\nRange: bytes=" + std::to_string(offset) +
                "-\r\n",
            cancelled, &error);
        say("vod: seek to " + std::to_string(seconds) + " s fetches from byte " +
            std::to_string(offset) + (reading ? "" : ": " + error));
    }
}

void VodPlayer::pause() {
    std::lock_guard<std::mutex> lock(mutex_);
    rebase();
    paused_ = true;
}

void VodPlayer::resume() {
    std::lock_guard<std::mutex> lock(mutex_);
    rebase();
    paused_ = false;
}

void VodPlayer::seek(long long seconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (loaded_) pending_seek_.store(std::max(0LL, seconds));
    base_pos_ms_ = std::clamp(seconds * 1000LL, 0LL, duration_s_ * 1000LL);
    base_time_ = Clock::now();
}

void VodPlayer::stop() {
    std::lock_guard<std::mutex> control(control_);
    cancel_fetch();
    std::lock_guard<std::mutex> lock(mutex_);
    ++generation_;
    loaded_ = have_data_ = paused_ = failed_ = false;
    base_pos_ms_ = 0;
}

void VodPlayer::shutdown() {
    stop();
    std::lock_guard<std::mutex> lock(mutex_);
    forced_status_.clear();
    forced_seekable_ = -1;
    bytes_ = 0;
    url_.clear();
}

void VodPlayer::force_status(const std::string& status) {
    std::lock_guard<std::mutex> lock(mutex_);
    forced_status_ = status;
}

void VodPlayer::force_seekable(int seekable) {
    std::lock_guard<std::mutex> lock(mutex_);
    forced_seekable_ = seekable;
}

void VodPlayer::set_duration(long duration_s) {
    std::lock_guard<std::mutex> lock(mutex_);
    rebase();
    duration_s_ = std::max(1L, duration_s);
}

VodInfo VodPlayer::info() const {
    std::lock_guard<std::mutex> lock(mutex_);
    VodInfo i;
    long long pos = position_ms(Clock::now());
    i.status = forced_status_.empty() ? simulated_status(pos) : forced_status_;
    bool shown = i.status != "stop";
    i.total_s = shown ? duration_s_ : 0;
    i.current_s = shown ? static_cast<long>(pos / 1000) : 0;
    i.seekable =
        forced_seekable_ >= 0 ? forced_seekable_ == 1 : (i.status == "play" || i.status == "pause");
    i.bytes = bytes_;
    i.url = url_;
    return i;
}

}  // namespace sim
