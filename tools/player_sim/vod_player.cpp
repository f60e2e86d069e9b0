#include "vod_player.h"

#include <algorithm>

#include "http_fetch.h"
#include "sim_util.h"

namespace sim {

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
    FetchResult r = http_fetch(url, *cancel, on_body);
    if (r.ok) {
        say("vod: fetched " + std::to_string(r.bytes) + " bytes of " + url);
        return;
    }
    say("vod: fetch of " + url + " failed: " + r.error);
    std::lock_guard<std::mutex> lock(mutex_);
    if (generation == generation_ && !have_data_ && !cancel->load()) failed_ = true;
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
