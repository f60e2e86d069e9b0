// The audio side of the player: start_aod opens the PCM FIFO for reading, as the box's
// player does, and records what arrives (s16le, stereo, 44100 Hz) into a WAV file.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

namespace sim {

struct AodInfo {
    std::string status;   // buffering, play, stop (or a forced value)
    long long bytes = 0;  // PCM bytes read since the last start_aod
};

class AodPlayer {
   public:
    AodPlayer(std::string fifo_path, std::string wav_path);
    AodPlayer(const AodPlayer&) = delete;
    AodPlayer& operator=(const AodPlayer&) = delete;
    ~AodPlayer() { stop(); }

    // Starts reading the FIFO in the background, ending any earlier recording first.
    void start();
    // Closes the FIFO and finishes the WAV file; returns once the reader has ended.
    void stop();
    void force_status(const std::string& status);  // "" follows the simulation again
    // A stalled reader keeps the FIFO open but takes nothing: the writer meets a full pipe.
    void set_stalled(bool stalled) { stalled_ = stalled; }
    AodInfo info() const;

   private:
    enum class Phase { idle, opening, waiting_data, playing, ended };
    void reader_main();
    void release_open();  // wakes a reader blocked in open()

    const std::string fifo_path_;
    const std::string wav_path_;
    std::mutex control_;  // serialises start/stop; held while the reader is joined
    std::thread reader_;  // guarded by control_
    std::atomic<bool> cancel_{false};
    std::atomic<bool> stalled_{false};
    std::atomic<Phase> phase_{Phase::idle};
    std::atomic<long long> bytes_{0};
    mutable std::mutex mutex_;
    std::string forced_status_;  // guarded by mutex_
};

}  // namespace sim
