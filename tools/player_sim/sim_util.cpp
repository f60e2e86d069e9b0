#include "sim_util.h"

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

namespace sim {

Fd& Fd::operator=(Fd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
}

void Fd::reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

std::string Target::arg(std::string_view key) const {
    for (const auto& [k, v] : args)
        if (k == key) return v;
    return {};
}

bool Target::has(std::string_view key) const {
    for (const auto& kv : args)
        if (kv.first == key) return true;
    return false;
}

static int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percent_decode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex_value(text[i + 1]) >= 0 &&
            hex_value(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

Target parse_target(std::string_view target) {
    Target t;
    size_t q = target.find('?');
    t.path = percent_decode(target.substr(0, q));
    if (q == std::string_view::npos) return t;
    std::string_view query = target.substr(q + 1);
    while (!query.empty()) {
        size_t amp = query.find('&');
        std::string_view pair = query.substr(0, amp);
        size_t eq = pair.find('=');
        std::string key = percent_decode(pair.substr(0, eq));
        std::string value = eq == std::string_view::npos ? "" : percent_decode(pair.substr(eq + 1));
        if (!key.empty()) t.args.emplace_back(std::move(key), std::move(value));
        if (amp == std::string_view::npos) break;
        query.remove_prefix(amp + 1);
    }
    return t;
}

long long unix_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

void say(const std::string& text) {
    // One fputs per line: stdio locks the stream per call, so threads do not interleave.
    std::string line = "player_sim: " + text + "\n";
    fputs(line.c_str(), stdout);
}

bool Stopper::sleep_for(std::chrono::milliseconds d) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !cv_.wait_for(lock, d, [this] { return stopped_.load(); });
}

void Stopper::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
    }
    cv_.notify_all();
}

}  // namespace sim
