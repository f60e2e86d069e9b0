// Small helpers shared by player_sim's parts: descriptors, request targets, clocks and an
// interruptible sleep.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sim {

// Owns one file descriptor; closes it when destroyed or reset.
class Fd {
   public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }

    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    void reset(int fd = -1);

   private:
    int fd_ = -1;
};

// A request target split into its path and its query arguments ("/playback?arg0=x&arg1=y").
// Values are percent-decoded; the raw target is kept by the caller.
struct Target {
    std::string path;
    std::vector<std::pair<std::string, std::string>> args;

    // The decoded value of key, or "" when absent.
    std::string arg(std::string_view key) const;
    bool has(std::string_view key) const;
};
Target parse_target(std::string_view target);

// "%41" -> "A"; a '%' not followed by two hex digits stays as it is; '+' is not a blank.
std::string percent_decode(std::string_view text);

// Milliseconds since the Unix epoch (wall clock), as the command log records them.
long long unix_ms();

// Writes all of data to fd (retrying short writes). Returns false on an error.
bool write_all(int fd, std::string_view data);

// Prints one human line on standard output ("player_sim: " + text).
void say(const std::string& text);

// Sleeps that end early when the program shuts down.
class Stopper {
   public:
    // Waits up to d. Returns false when stop() was called (before or during the wait).
    bool sleep_for(std::chrono::milliseconds d);
    void stop();
    bool stopped() const { return stopped_.load(); }

   private:
    std::atomic<bool> stopped_{false};
    std::mutex mutex_;
    std::condition_variable cv_;
};

}  // namespace sim
