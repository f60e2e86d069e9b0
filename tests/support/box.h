// The box in a test: player_sim as the player and the real zor_airplay daemon.
#pragma once

#include "support/support.h"

namespace zt {

struct PlayerCommand {
    long long time_ms = 0;  // wall clock, milliseconds since the epoch
    std::string name;       // arg0
    std::string target;     // e.g. "/playback?arg0=stop_vod"
};

// Stopping (also at the end) fails the test when either process logged a sanitizer report.
class Box {
   public:
    ~Box() { stop(); }
    // player_sim with extra options (e.g. {"--vod-status", "play"}); false unless 8008 answers.
    bool start_player(const std::vector<std::string>& options = {});
    bool start_daemon();  // false unless port 7000 accepts
    bool start(const std::vector<std::string>& player_options = {}) {
        return start_player(player_options) && start_daemon();
    }
    void stop();

    std::string daemon_log() const { return daemon_.log(); }
    Process& daemon() { return daemon_; }
    std::vector<PlayerCommand> commands() const;
    std::vector<std::string> targets(const std::string& name) const;
    size_t count(const std::string& name) const { return targets(name).size(); }
    bool wait_command(const std::string& name, size_t n = 1,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        return wait_until([&] { return count(name) >= n; }, timeout);
    }
    // A control request to player_sim ("/sim/force?vod=play"); its reply body.
    std::string sim(const std::string& target) const;
    bool wait_log(const std::string& text,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        return wait_until([&] { return daemon_log().find(text) != std::string::npos; }, timeout);
    }

    static constexpr const char* kSimOut = "/tmp/player_sim";

   private:
    Process player_;
    Process daemon_;
};

}  // namespace zt
