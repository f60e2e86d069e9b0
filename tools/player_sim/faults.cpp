#include "faults.h"

namespace sim {

void Faults::set(Fault kind, const std::string& cmd, int count, long ms) {
    std::lock_guard<std::mutex> lock(mutex_);
    Table& table = kind == Fault::refuse ? refuse_ : kind == Fault::close ? close_ : delay_;
    if (count == 0 || (kind == Fault::delay && ms <= 0)) {
        table.erase(cmd);
        return;
    }
    table[cmd] = Armed{count, ms};
}

bool Faults::use(Table& table, const std::string& cmd, long* ms) {
    for (const std::string& key : {cmd, std::string("*")}) {
        auto it = table.find(key);
        if (it == table.end()) continue;
        if (ms) *ms = it->second.ms;
        if (it->second.count > 0 && --it->second.count == 0) table.erase(it);
        return true;
    }
    return false;
}

FaultPlan Faults::take(const std::string& cmd) {
    std::lock_guard<std::mutex> lock(mutex_);
    FaultPlan plan;
    use(delay_, cmd, &plan.delay_ms);
    plan.close = use(close_, cmd, nullptr);
    plan.refuse = !plan.close && use(refuse_, cmd, nullptr);
    return plan;
}

void Faults::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    refuse_.clear();
    close_.clear();
    delay_.clear();
}

}  // namespace sim
