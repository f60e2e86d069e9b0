// The player control service itself: every command of the box's player, the command log
// that tests read, and the /sim/ control requests that steer the simulation.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

#include "aod_player.h"
#include "faults.h"
#include "http_server.h"
#include "sim_util.h"
#include "vod_player.h"

namespace sim {

struct PlayerOptions {
    std::string out_dir = "/tmp/player_sim";
    std::string fifo = "/tmp/airtunes";
    long duration_s = 120;
    std::string fetch_fail_status = "stop";
};

class Player {
   public:
    Player(const PlayerOptions& options, Stopper* stopper);

    // Creates the output folder and an empty command log. False (with *error) on failure.
    bool open(std::string* error);
    // Serves one request: a player command (logged) or a /sim/ control request (not logged).
    std::optional<std::string> handle(const Request& req);
    Faults& faults() { return faults_; }
    VodPlayer& vod() { return vod_; }
    AodPlayer& aod() { return aod_; }
    // Ends the fetch and the recording; the WAV file is complete afterwards.
    void shutdown();

   private:
    std::optional<std::string> command(const Request& req, const Target& t);
    int execute(const std::string& name, const Target& t, std::string* fields);
    int show_photo(const std::string& uri);
    std::string control(const Target& t, int* code);
    std::string state() const;
    void log_command(const std::string& name, const std::string& raw_target);

    const PlayerOptions options_;
    Stopper* stopper_;
    Faults faults_;
    VodPlayer vod_;
    AodPlayer aod_;
    Fd log_fd_;  // written with one write() per line (O_APPEND), from any thread
    std::atomic<long> commands_{0};

    mutable std::mutex mutex_;  // guards the fields below
    std::string volume_;        // arg1 of the last set_system_volume, "" before any
    bool photo_shown_ = false;
    int photos_ = 0;  // photos shown so far; the last one is photo-<photos_>.jpg
};

}  // namespace sim
