// The box in a test: player_sim as the player and the real zor_airplay daemon, both
// started inside the test's sandbox, with helpers to read what each of them saw.
#pragma once

#include <string>
#include <vector>

#include "support/support.h"

namespace zt {

// One command as player_sim logged it.
struct PlayerCommand {
    long long time_ms = 0;  // wall clock, milliseconds since the epoch
    std::string name;       // arg0, e.g. "start_vod"
    std::string target;     // the raw request target, e.g. "/playback?arg0=stop_vod"
};

class Box {
   public:
    ~Box() { stop(); }

    // Starts player_sim with extra options (e.g. {"--vod-status", "play"}); waits until its
    // port 8008 answers. Returns false when it did not come up.
    bool start_player(const std::vector<std::string>& options = {});
    // Starts zor_airplay; waits until port 7000 accepts. Returns false if it did not.
    bool start_daemon();
    // Both, player first.
    bool start(const std::vector<std::string>& player_options = {});
    // Ends the daemon with SIGTERM (returns its exit status, -1 if it hung) and the player.
    int stop_daemon();
    void stop();

    std::string daemon_log() const { return daemon_.log(); }
    Process& daemon() { return daemon_; }
    // The commands player_sim has received so far, in order.
    std::vector<PlayerCommand> commands() const;
    // How many commands named `name` player_sim has received so far.
    size_t count(const std::string& name) const;
    // Waits until player_sim has logged `count` commands named `name`.
    bool wait_command(const std::string& name, size_t count = 1,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Sends a control request to player_sim ("/sim/force?vod=play"); returns the reply body.
    std::string sim(const std::string& target) const;
    // Waits until the daemon's log contains text.
    bool wait_log(const std::string& text,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    static constexpr const char* kSimOut = "/tmp/player_sim";

   private:
    Process player_;
    Process daemon_;
};

}  // namespace zt
