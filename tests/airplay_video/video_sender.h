// The sender's side of a video session against the real daemon in the sandbox: session
// ids, the reverse connection with its events, POST /play in both body forms and the
// control requests, and the player commands as player_sim logged them.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "airplay/airplay_test_util.h"
#include "support/box.h"
#include "support/media_server.h"

namespace zt {

inline long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

class VideoSender {
   public:
    // GET /server-info with a new session id: the next POST /play is not a repeat.
    bool new_session() {
        char id[40];
        std::snprintf(id, sizeof(id), "7A2C9B1E-0F4D-4E5A-8B6C-%012d", ++sessions_);
        Client c = connect();
        return status_code(ask(c, "GET /server-info HTTP/1.1\r\nX-Apple-Session-ID: " +
                                      std::string(id) + "\r\nContent-Length: 0\r\n\r\n")) == 200;
    }

    // POST /reverse on a connection of its own, on which the events arrive.
    bool open_reverse() {
        reverse_ = connect();
        return status_code(ask(reverse_,
                               "POST /reverse HTTP/1.1\r\nUpgrade: PTTH/1.0\r\n"
                               "Connection: Upgrade\r\nContent-Length: 0\r\n\r\n")) == 101;
    }

    // Waits until an event with this state has arrived on the reverse connection.
    bool wait_event(const std::string& state,
                    std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
        return wait_until(
            [&] {
                events_ += reverse_.recv_some(std::chrono::milliseconds(50));
                return events_.find("<string>" + state + "</string>") != std::string::npos;
            },
            timeout);
    }

    // The events received so far, as text; clear_events forgets them.
    const std::string& events() const { return events_; }
    void clear_events() { events_.clear(); }

    // A POST /play with this content type and body, the head sent first and the body in a
    // later segment when split is set. Returns the reply ("" when the connection closed).
    std::string play(const std::string& content_type, const std::string& body, bool split = false) {
        return play_head(content_type, body.size(), body, split, false);
    }
    std::string play_text(const std::string& body) { return play("text/parameters", body); }
    std::string play_binary(const std::string& body, bool split = false) {
        return play("application/x-apple-binary-plist", body, split);
    }
    // The same with a Content-Length of its own, for bodies that are cut short; with
    // close_write the sender then ends its side of the connection.
    std::string play_head(const std::string& content_type, size_t content_length,
                          const std::string& body, bool split, bool close_write) {
        Client c = connect();
        std::string head = "POST /play HTTP/1.1\r\nContent-Type: " + content_type +
                           "\r\nContent-Length: " + std::to_string(content_length) +
                           "\r\nUser-Agent: MediaControl/1.0\r\n\r\n";
        if (split) {
            c.send(head);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));  // separate segments
            c.send(body);
        } else {
            c.send(head + body);
        }
        if (close_write) ::shutdown(c.fd(), SHUT_WR);
        return c.recv_message(std::chrono::seconds(15));
    }

    // A bodiless POST (/rate?value=..., /scrub?position=..., /stop). Returns the status.
    int post(const std::string& target) {
        Client c = connect();
        return status_code(ask(c, "POST " + target + " HTTP/1.1\r\nContent-Length: 0\r\n\r\n"));
    }

    // True while the daemon still answers a request.
    bool serving() {
        Client c = connect();
        return c.ok() && status_code(ask(c, "GET /playback-info HTTP/1.1\r\n\r\n")) == 200;
    }

    // GET /playback-info's rate (1 while the daemon takes the video for playing).
    std::string playback_rate() {
        Client c = connect();
        return plist_value(body_of(ask(c, "GET /playback-info HTTP/1.1\r\n\r\n")), "rate");
    }

    static Client connect() { return Client::connect("127.0.0.1", 7000); }

   private:
    Client reverse_;
    std::string events_;
    int sessions_ = 0;
};

// The number of threads the process has now (0 when it is gone).
inline size_t thread_count(pid_t pid) {
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("\nThreads:");
    return at == std::string::npos ? 0 : std::strtoul(status.c_str() + at + 9, nullptr, 10);
}

// The sender's media server on 192.0.2.20:8080, with a short video-like body.
struct MediaServer : MediaFileServer {
    bool start() { return MediaFileServer::start(std::string(4096, 'v')); }
};

// The player's commands apart from the monitor's status queries, in order.
inline std::vector<PlayerCommand> control_commands(const Box& box) {
    std::vector<PlayerCommand> out;
    for (auto& c : box.commands())
        if (c.name != "get_current_vod_info") out.push_back(c);
    return out;
}

inline std::vector<std::string> control_names(const Box& box) {
    std::vector<std::string> out;
    for (auto& c : control_commands(box)) out.push_back(c.name);
    return out;
}

}  // namespace zt
