// The video side of the player: start_vod really fetches the media URL in the background,
// as the box's player does (a GET, a HEAD on a second connection, a Range request on a new
// connection for each seek); the reported status and play head follow that fetch and the
// wall clock.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "http_fetch.h"

namespace sim {

struct VodInfo {
    std::string status;  // play, pause, stop, buffering or unknown
    long total_s = 0;
    long current_s = 0;
    bool seekable = false;
    long long bytes = 0;  // media bytes fetched for the current video
    std::string url;      // the decoded URL of the last start_vod
};

class VodPlayer {
   public:
    // fail_status: what the player reports when its fetch fails before any media arrived.
    VodPlayer(long duration_s, std::string fail_status);
    VodPlayer(const VodPlayer&) = delete;
    VodPlayer& operator=(const VodPlayer&) = delete;
    ~VodPlayer() { shutdown(); }

    // Starts a video: "buffering" until the first media bytes arrive, then "play" from
    // fraction x duration. Replaces (and cancels the fetch of) any earlier video.
    void start(const std::string& url, double fraction);
    void pause();
    void resume();
    void seek(long long seconds);
    void stop();
    // Makes info() report status regardless of the simulation ("" to follow it again);
    // seekable: 1 true, 0 false, -1 follow the status.
    void force_status(const std::string& status);
    void force_seekable(int seekable);
    void set_duration(long duration_s);
    VodInfo info() const;
    // Cancels and waits for the fetch; back to the state before any start.
    void shutdown();

   private:
    using Clock = std::chrono::steady_clock;
    void fetch_main(std::string url, unsigned generation,
                    std::shared_ptr<std::atomic<bool>> cancel);
    void stream_and_seek(const HttpUrl& u, long long total,
                         std::vector<std::unique_ptr<HttpStream>>* streams,
                         const std::shared_ptr<std::atomic<bool>>& cancel,
                         const std::function<void(size_t)>& on_body);
    void cancel_fetch();                                   // caller holds control_
    long long position_ms(Clock::time_point now) const;    // caller holds mutex_
    void rebase();                                         // caller holds mutex_
    std::string simulated_status(long long pos_ms) const;  // caller holds mutex_

    std::mutex control_;  // serialises start/stop/shutdown, held while a fetch is joined
    std::thread fetch_;   // guarded by control_
    std::shared_ptr<std::atomic<bool>> cancel_;  // guarded by control_
    std::atomic<long long> pending_seek_{-1};    // seconds of a seek the fetch has to make

    mutable std::mutex mutex_;  // guards the fields below; never held during I/O
    unsigned generation_ = 0;   // which start the fetch thread's reports belong to
    bool loaded_ = false;
    bool have_data_ = false;
    bool paused_ = false;
    bool failed_ = false;
    long long base_pos_ms_ = 0;
    Clock::time_point base_time_{};
    long long bytes_ = 0;
    std::string url_;
    long duration_s_;
    const std::string fail_status_;
    std::string forced_status_;
    int forced_seekable_ = -1;
};

}  // namespace sim
