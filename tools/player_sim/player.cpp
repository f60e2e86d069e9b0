#include "player.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace sim {

namespace {

constexpr long long kMaxPhotoBytes = 64LL << 20;

std::string xml_reply(int return_value, const std::string& fields) {
    std::string body = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response>\n<returnValue>" +
                       std::to_string(return_value) + "</returnValue>\n" + fields + "</response>\n";
    return http_reply(200, "OK", "text/xml", body);
}

std::string status_fields(const std::string& status, long total, long current, bool seekable) {
    return "<currentStatus>" + status + "</currentStatus>\n<totalTime>" + std::to_string(total) +
           "</totalTime>\n<currentTime>" + std::to_string(current) +
           "</currentTime>\n<seekEnable>" + (seekable ? "true" : "false") + "</seekEnable>\n";
}

// "HH:MM:SS" with any number of hour digits. Returns seconds, or -1 when malformed.
long long parse_hms(const std::string& text) {
    long long h = 0;
    int m = 0, s = 0, used = 0;
    if (sscanf(text.c_str(), "%lld:%2d:%2d%n", &h, &m, &s, &used) != 3) return -1;
    if (used != static_cast<int>(text.size()) || h < 0 || m < 0 || m > 59 || s < 0 || s > 59)
        return -1;
    return h * 3600 + m * 60 + s;
}

}  // namespace

Player::Player(const PlayerOptions& options, Stopper* stopper)
    : options_(options),
      stopper_(stopper),
      vod_(options.duration_s, options.fetch_fail_status),
      aod_(options.fifo, options.out_dir + "/audio.wav") {}

bool Player::open(std::string* error) {
    if (::mkdir(options_.out_dir.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "cannot create " + options_.out_dir + ": " + strerror(errno);
        return false;
    }
    std::string path = options_.out_dir + "/commands.log";
    log_fd_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
    if (!log_fd_.ok()) {
        *error = "cannot create " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

void Player::shutdown() {
    vod_.shutdown();
    aod_.stop();
}

void Player::log_command(const std::string& name, const std::string& raw_target) {
    std::string line = std::to_string(unix_ms()) + "\t" + name + "\t" + raw_target + "\n";
    write_all(log_fd_.get(), line);  // one write: lines from threads never interleave
    ++commands_;
}

std::optional<std::string> Player::handle(const Request& req) {
    Target t = parse_target(req.target);
    if (t.path.rfind("/sim/", 0) == 0) {
        int code = 200;
        std::string body = control(t, &code);
        return http_reply(code, code == 200 ? "OK" : "Bad Request", "text/plain", body);
    }
    return command(req, t);
}

std::optional<std::string> Player::command(const Request& req, const Target& t) {
    std::string name = t.arg("arg0");
    log_command(name, req.target);
    FaultPlan plan = faults_.take(name);
    std::string note;
    if (plan.delay_ms > 0) {
        if (!stopper_->sleep_for(std::chrono::milliseconds(plan.delay_ms))) return std::nullopt;
        note = " (answered " + std::to_string(plan.delay_ms) + " ms late)";
    }
    if (plan.close) {
        say(name + ": closing without an answer, as told");
        return std::nullopt;
    }
    if (plan.refuse) {
        say(name + ": refused, as told" + note);
        return xml_reply(-1, "");
    }
    std::string fields;
    int rv = req.method == "GET" ? execute(name, t, &fields) : -1;
    std::string args;
    for (const auto& [k, v] : t.args)
        if (k != "arg0") args += " " + k + "=" + v;
    say(name + args + " -> " + std::to_string(rv) + note);
    return xml_reply(rv, fields);
}

// Runs one command on the simulated player. Returns the reply's returnValue; the status
// queries also write their markers into *fields.
int Player::execute(const std::string& name, const Target& t, std::string* fields) {
    bool playback = t.path == "/playback";
    if (t.path == "/system" && name == "set_system_volume") {
        std::lock_guard<std::mutex> lock(mutex_);
        volume_ = t.arg("arg1");
        return 0;
    }
    if (!playback) return -1;
    if (name == "get_current_vod_info") {
        VodInfo i = vod_.info();
        *fields = status_fields(i.status, i.total_s, i.current_s, i.seekable);
        return 0;
    }
    if (name == "get_current_aod_info") {
        AodInfo i = aod_.info();
        *fields = status_fields(i.status, 0, static_cast<long>(i.bytes / (44100 * 4)), false);
        return 0;
    }
    if (name == "start_vod") {
        std::string url = t.arg("arg2");
        if (url.empty()) return -1;
        vod_.start(url, std::strtod(t.arg("arg4").c_str(), nullptr));
        return 0;
    }
    if (name == "set_time_seek_vod") {
        long long s = parse_hms(t.arg("arg1"));
        if (s < 0) return -1;
        vod_.seek(s);
        return 0;
    }
    if (name == "pause_vod") return vod_.pause(), 0;
    if (name == "resume_vod") return vod_.resume(), 0;
    if (name == "stop_vod") return vod_.stop(), 0;
    if (name == "start_aod") return aod_.start(), 0;
    if (name == "stop_aod") return aod_.stop(), 0;
    if (name == "insert_pod_queue") return show_photo(t.arg("arg2"));
    if (name == "stop_pod") {
        std::lock_guard<std::mutex> lock(mutex_);
        photo_shown_ = false;
        return 0;
    }
    return -1;
}

// Copies the photo into the output folder as photo-N.jpg: what the test can look at.
int Player::show_photo(const std::string& uri) {
    if (uri.rfind("file://", 0) != 0) return -1;
    std::ifstream in(uri.substr(7), std::ios::binary);
    if (!in) return -1;
    std::string bytes;
    char buf[65536];
    while (in.read(buf, sizeof buf) || in.gcount() > 0) {
        bytes.append(buf, static_cast<size_t>(in.gcount()));
        if (static_cast<long long>(bytes.size()) > kMaxPhotoBytes) return -1;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    std::string path = options_.out_dir + "/photo-" + std::to_string(photos_ + 1) + ".jpg";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()))) return -1;
    ++photos_;
    photo_shown_ = true;
    return 0;
}

std::string Player::control(const Target& t, int* code) {
    std::string what = t.path.substr(5);
    int count = t.has("count") ? std::atoi(t.arg("count").c_str()) : -1;
    std::string cmd = t.arg("cmd");
    *code = 200;
    if (what == "state") return state();
    if ((what == "refuse" || what == "close" || what == "delay") && !cmd.empty()) {
        Fault kind = what == "refuse"  ? Fault::refuse
                     : what == "close" ? Fault::close
                                       : Fault::delay;
        faults_.set(kind, cmd, count, std::atol(t.arg("ms").c_str()));
        return "ok\n";
    }
    if (what == "force") {
        // Any text is passed on as the status, so tests can also send ones a player never
        // would; "none" goes back to the simulation.
        if (t.has("vod")) vod_.force_status(t.arg("vod") == "none" ? "" : t.arg("vod"));
        if (t.has("aod")) aod_.force_status(t.arg("aod") == "none" ? "" : t.arg("aod"));
        if (t.has("seek"))
            vod_.force_seekable(t.arg("seek") == "none" ? -1 : t.arg("seek") == "true");
        return "ok\n";
    }
    if (what == "stall") {
        aod_.set_stalled(t.arg("aod") == "1");
        return "ok\n";
    }
    if (what == "duration" && std::atol(t.arg("s").c_str()) > 0) {
        vod_.set_duration(std::atol(t.arg("s").c_str()));
        return "ok\n";
    }
    if (what == "reset") {
        faults_.clear();
        vod_.force_status("");
        vod_.force_seekable(-1);
        aod_.force_status("");
        aod_.set_stalled(false);
        return "ok\n";
    }
    *code = 400;
    return "unknown control request " + t.path + "\n";
}

std::string Player::state() const {
    VodInfo v = vod_.info();
    AodInfo a = aod_.info();
    std::ostringstream s;
    s << "vod=" << v.status << "\nvod_time=" << v.current_s << "\nvod_duration=" << v.total_s
      << "\nvod_seekable=" << (v.seekable ? "true" : "false") << "\nvod_bytes=" << v.bytes
      << "\nvod_url=" << v.url << "\naod=" << a.status << "\naod_bytes=" << a.bytes;
    std::lock_guard<std::mutex> lock(mutex_);
    s << "\nvolume=" << volume_ << "\nphoto=" << (photo_shown_ ? "shown" : "hidden")
      << "\nphotos=" << photos_ << "\ncommands=" << commands_.load() << "\n";
    return s.str();
}

}  // namespace sim
