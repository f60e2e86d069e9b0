// The sender's side of AirPlay (port 7000): session ids, the reverse connection and its
// events, POST /play and the control requests; and the player commands player_sim logged.
#pragma once

#include <string>
#include <thread>
#include <vector>

#include "support/box.h"
#include "support/support.h"

namespace zt {

inline const char kText[] = "text/parameters";
inline const char kBinary[] = "application/x-apple-binary-plist";

// Sends request on c and reads one reply ("" when the send failed).
inline std::string ask(Client& c, const std::string& request) {
    return c.send(request) ? c.recv_message() : std::string();
}
// The text inside the element that follows <key>key</key> ("" when absent).
std::string plist_value(const std::string& body, const std::string& key);
// A binary property list of tests/airplay_video/bplists, by name without ".bplist".
inline std::string load_bplist(const std::string& name) {
    return read_file(source_dir() + "/tests/airplay_video/bplists/" + name + ".bplist");
}

// player_sim's commands named name (all of them but the monitor's queries when empty).
std::vector<PlayerCommand> commands_named(const Box& box, const std::string& name = "");
std::vector<std::string> control_names(const Box& box);
// Waits until the monitor has asked the player `polls` more times: by then it has seen
// whatever player_sim was told before the call.
inline bool let_monitor_poll(const Box& box, size_t polls = 3) {
    return box.wait_command("get_current_vod_info", box.count("get_current_vod_info") + polls);
}

class VideoSender {
   public:
    static Client connect() { return Client::connect("127.0.0.1", 7000); }
    // One request on a connection of its own; the reply.
    static std::string request(const std::string& r) {
        Client c = connect();
        return ask(c, r);
    }
    // A bodiless POST (/rate?value=..., /scrub?position=..., /stop). Returns the status.
    static int post(const std::string& target) {
        return status_code(request("POST " + target + " HTTP/1.1\r\nContent-Length: 0\r\n\r\n"));
    }
    // GET /server-info with a new session id: the next POST /play is not a repeat.
    bool new_session();
    // POST /reverse on a connection of its own, on which the events arrive.
    bool open_reverse();
    // Waits until an event with this state has arrived on the reverse connection.
    bool wait_event(const std::string& state);
    // POST /play with this body; a content_length of its own cuts the body short (the sender
    // then ends its side), split sends the body in a later segment than the head.
    std::string play(const std::string& type, const std::string& body, bool split = false,
                     long content_length = -1);
    int play_status(const std::string& type, const std::string& body) {
        return status_code(play(type, body));
    }

    Client reverse;
    std::string events;  // received so far on the reverse connection

   private:
    int sessions_ = 0;
};

}  // namespace zt
