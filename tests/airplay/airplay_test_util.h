// Helpers of the AirPlay tests: a sender's side of port 7000 (replies, property lists, the
// reverse connection, POST /play) and what player_sim and the daemon saw.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/box.h"
#include "support/media_server.h"
#include "support/support.h"

namespace zt {

// The reply with its Date value replaced by "<date>", so the rest compares byte for byte.
inline std::string without_date(const std::string& reply) {
    size_t at = reply.find("\r\nDate: ");
    size_t end = at == std::string::npos ? at : reply.find("\r\n", at + 8);
    return end == std::string::npos ? reply
                                    : reply.substr(0, at + 8) + "<date>" + reply.substr(end);
}

// The text inside the element that follows <key>key</key> ("" when absent).
inline std::string plist_value(const std::string& body, const std::string& key) {
    size_t at = body.find("<key>" + key + "</key>");
    if (at == std::string::npos) return {};
    size_t open = body.find('>', body.find('<', at + key.size() + 11));
    size_t close = body.find("</", open);
    return open == std::string::npos || close == std::string::npos
               ? std::string()
               : body.substr(open + 1, close - open - 1);
}

inline std::string ask(Client& c, const std::string& request) {
    return c.send(request) ? c.recv_message() : std::string();
}

inline long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// Occurrences of text in s.
inline size_t occurrences(const std::string& s, const std::string& text) {
    size_t n = 0;
    for (size_t at = s.find(text); at != std::string::npos; at = s.find(text, at + 1)) ++n;
    return n;
}

// player_sim's commands named name (all of them but the monitor's queries when empty).
inline std::vector<PlayerCommand> commands_named(const Box& box, const std::string& name = "") {
    std::vector<PlayerCommand> out;
    for (auto& c : box.commands())
        if (name.empty() ? c.name != "get_current_vod_info" : c.name == name) out.push_back(c);
    return out;
}
inline std::vector<std::string> control_names(const Box& box) {
    std::vector<std::string> out;
    for (auto& c : commands_named(box)) out.push_back(c.name);
    return out;
}
// Waits until the monitor has asked the player `polls` more times: by then it has seen
// whatever player_sim was told before the call.
inline bool let_monitor_poll(const Box& box, size_t polls = 3) {
    return box.wait_command("get_current_vod_info",
                            commands_named(box, "get_current_vod_info").size() + polls);
}

// The daemon's (and player_sim's) log holds no sanitizer report: the sanitizer builds write
// theirs there, and the process goes on, so only this check makes the test fail.
inline void expect_no_sanitizer_report(const std::string& daemon_log) {
    for (const std::string& log : {daemon_log, read_file("/tmp/player_sim.log")})
        for (const char* mark : {"runtime error", "AddressSanitizer", "WARNING: ThreadSanitizer"})
            EXPECT_EQ(log.find(mark), std::string::npos) << log;
}

// Small socket buffers for the connections made from now on in this sandbox's network, as
// a box on a slow network has: a peer that stops reading fills them within a few messages.
inline bool use_small_socket_buffers() {
    for (const char* name : {"/proc/sys/net/ipv4/tcp_wmem", "/proc/sys/net/ipv4/tcp_rmem"}) {
        FILE* f = std::fopen(name, "w");
        if (f == nullptr) return false;
        bool ok = std::fputs("4096 4096 4096", f) >= 0;
        if (std::fclose(f) != 0 || !ok) return false;
    }
    return true;
}

// The number of threads the process has now (0 when it is gone).
inline size_t thread_count(pid_t pid) {
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("\nThreads:");
    return at == std::string::npos ? 0 : std::strtoul(status.c_str() + at + 9, nullptr, 10);
}

inline const std::string kPlistHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST "
    "1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\r\n<plist version=\"1.0\">\r\n";

// A sender of videos: session ids, the reverse connection with its events, POST /play and
// the control requests, each on a connection of its own.
class VideoSender {
   public:
    static Client connect() { return Client::connect("127.0.0.1", 7000); }
    static std::string request(const std::string& r) {
        Client c = connect();
        return ask(c, r);
    }
    // GET /server-info with a new session id: the next POST /play is not a repeat.
    bool new_session() {
        char id[40];
        std::snprintf(id, sizeof(id), "7A2C9B1E-0F4D-4E5A-8B6C-%012d", ++sessions_);
        return status_code(request("GET /server-info HTTP/1.1\r\nX-Apple-Session-ID: " +
                                   std::string(id) + "\r\n\r\n")) == 200;
    }
    // POST /reverse on a connection of its own, on which the events arrive.
    bool open_reverse() {
        reverse = connect();
        return status_code(ask(reverse,
                               "POST /reverse HTTP/1.1\r\nUpgrade: PTTH/1.0\r\n"
                               "Connection: Upgrade\r\n\r\n")) == 101;
    }
    // Waits until an event with this state has arrived on the reverse connection.
    bool wait_event(const std::string& state) {
        return wait_until(
            [&] {
                events += reverse.recv_some(std::chrono::milliseconds(50));
                return events.find("<string>" + state + "</string>") != std::string::npos;
            },
            std::chrono::seconds(15));
    }
    // POST /play with this body; a content_length of its own cuts the body short (the sender
    // then ends its side), split sends the body in a later segment than the head.
    std::string play(const std::string& type, const std::string& body, bool split = false,
                     long content_length = -1) {
        Client c = connect();
        c.send("POST /play HTTP/1.1\r\nContent-Type: " + type + "\r\nContent-Length: " +
               std::to_string(content_length < 0 ? body.size() : content_length) + "\r\n\r\n" +
               (split ? "" : body));
        if (split) std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (split) c.send(body);
        if (content_length > static_cast<long>(body.size()) && !body.empty())
            ::shutdown(c.fd(), SHUT_WR);
        return c.recv_message(std::chrono::seconds(15));
    }
    int play_status(const std::string& type, const std::string& body) {
        return status_code(play(type, body));
    }
    // A bodiless POST (/rate?value=..., /scrub?position=..., /stop). Returns the status.
    static int post(const std::string& target) {
        return status_code(request("POST " + target + " HTTP/1.1\r\nContent-Length: 0\r\n\r\n"));
    }

    Client reverse;
    std::string events;  // received so far on the reverse connection

   private:
    int sessions_ = 0;
};

inline const char kText[] = "text/parameters";
inline const char kBinary[] = "application/x-apple-binary-plist";

// The sender's media server on 192.0.2.20:8080, with a short video-like body.
struct MediaServer : MediaFileServer {
    bool start() { return MediaFileServer::start(std::string(4096, 'v')); }
};

}  // namespace zt
