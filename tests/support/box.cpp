#include "support/box.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

namespace zt {

namespace {

// A sanitizer report from any thread must fail the test, though the process goes on or is
// stopped by a signal, so that its exit status does not tell.
void expect_no_sanitizer_report(const char* name, const std::string& log) {
    for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                             "runtime error:", "WARNING: ThreadSanitizer"}) {
        size_t at = log.find(mark);
        if (at != std::string::npos) ADD_FAILURE() << name << ": " << log.substr(at, 4000);
    }
}

}  // namespace

bool Box::start_player(const std::vector<std::string>& options) {
    std::vector<std::string> argv{build_dir() + "/player_sim", "--out", kSimOut};
    argv.insert(argv.end(), options.begin(), options.end());
    return player_.start(argv, "/tmp/player_sim.log") &&
           wait_until([] { return Client::connect("127.0.0.1", 8008, {}).ok(); });
}

bool Box::start_daemon() {
    return daemon_.start({build_dir() + "/zor_airplay"}, "/tmp/zor_airplay.log") &&
           wait_until([] { return Client::connect("127.0.0.1", 7000, {}).ok(); });
}

bool Box::start(const std::vector<std::string>& player_options) {
    return start_player(player_options) && start_daemon();
}

int Box::stop_daemon() {
    return daemon_.running() ? daemon_.stop(SIGTERM) : -1;
}

void Box::stop() {
    bool ran = daemon_.running() || player_.running();
    stop_daemon();
    if (player_.running()) player_.stop(SIGTERM, std::chrono::seconds(5));
    if (!ran) return;
    expect_no_sanitizer_report("zor_airplay", daemon_.log());
    expect_no_sanitizer_report("player_sim", player_.log());
}

// commands.log: time TAB name TAB target, one a line.
std::vector<PlayerCommand> Box::commands() const {
    std::vector<PlayerCommand> out;
    std::istringstream in(read_file(std::string(kSimOut) + "/commands.log"));
    PlayerCommand c;
    while (in >> c.time_ms && in.get() == '\t' && std::getline(in, c.name, '\t') &&
           std::getline(in, c.target))
        out.push_back(c);
    return out;
}

size_t Box::count(const std::string& name) const {
    return targets(name).size();
}

std::vector<std::string> Box::targets(const std::string& name) const {
    std::vector<std::string> out;
    for (const auto& c : commands())
        if (c.name == name) out.push_back(c.target);
    return out;
}

bool Box::wait_command(const std::string& name, size_t n, std::chrono::milliseconds timeout) const {
    return wait_until([&] { return count(name) >= n; }, timeout);
}

std::string Box::sim(const std::string& target) const {
    Client c = Client::connect("127.0.0.1", 8008);
    c.send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:8008\r\n\r\n");
    return body_of(c.recv_all());
}

bool Box::wait_log(const std::string& text, std::chrono::milliseconds timeout) const {
    return wait_until([&] { return daemon_.log().find(text) != std::string::npos; }, timeout);
}

}  // namespace zt
