// Misbehaviour on demand, per command name, so tests can drive the daemon's failure paths:
// refuse (non-zero returnValue), close (no reply at all) and delay (answer late).
#pragma once

#include <map>
#include <mutex>
#include <string>

namespace sim {

enum class Fault { refuse, close, delay };

// What to do with one received command.
struct FaultPlan {
    long delay_ms = 0;  // wait this long before acting and answering
    bool close = false;
    bool refuse = false;
};

class Faults {
   public:
    // Arms a fault for cmd ("*" matches every command). count < 0: until cleared; count 0
    // clears it. For delay, ms is the wait.
    void set(Fault kind, const std::string& cmd, int count, long ms = 0);
    // The plan for one command; uses up one count of each matching armed fault.
    FaultPlan take(const std::string& cmd);
    void clear();

   private:
    struct Armed {
        int count = 0;  // < 0: unlimited
        long ms = 0;
    };
    using Table = std::map<std::string, Armed>;
    static bool use(Table& table, const std::string& cmd, long* ms);

    std::mutex mutex_;
    Table refuse_, close_, delay_;  // guarded by mutex_
};

}  // namespace sim
