#include "support/airplay_sender.h"

#include <sys/socket.h>

namespace zt {

std::string plist_value(const std::string& body, const std::string& key) {
    size_t at = body.find("<key>" + key + "</key>");
    if (at == std::string::npos) return {};
    size_t open = body.find('>', body.find('<', at + key.size() + 11));
    size_t close = body.find("</", open);
    return open == std::string::npos || close == std::string::npos
               ? std::string()
               : body.substr(open + 1, close - open - 1);
}

std::vector<PlayerCommand> commands_named(const Box& box, const std::string& name) {
    std::vector<PlayerCommand> out;
    for (auto& c : box.commands())
        if (name.empty() ? c.name != "get_current_vod_info" : c.name == name) out.push_back(c);
    return out;
}

std::vector<std::string> control_names(const Box& box) {
    std::vector<std::string> out;
    for (auto& c : commands_named(box)) out.push_back(c.name);
    return out;
}

bool VideoSender::new_session() {
    std::string id = "7A2C9B1E-0F4D-4E5A-8B6C-" + std::to_string(100000000000 + ++sessions_);
    return status_code(request("GET /server-info HTTP/1.1\r\nX-Apple-Session-ID: " + id +
                               "\r\n\r\n")) == 200;
}

bool VideoSender::open_reverse() {
    reverse = connect();
    return status_code(ask(reverse,
                           "POST /reverse HTTP/1.1\r\nUpgrade: PTTH/1.0\r\n"
                           "Connection: Upgrade\r\n\r\n")) == 101;
}

bool VideoSender::wait_event(const std::string& state) {
    return wait_until(
        [&] {
            events += reverse.recv_some(std::chrono::milliseconds(50));
            return events.find("<string>" + state + "</string>") != std::string::npos;
        },
        std::chrono::seconds(15));
}

std::string VideoSender::play(const std::string& type, const std::string& body, bool split,
                              long content_length) {
    Client c = connect();
    c.send("POST /play HTTP/1.1\r\nContent-Type: " + type + "\r\nContent-Length: " +
           std::to_string(content_length < 0 ? body.size() : content_length) + "\r\n\r\n" +
           (split ? "" : body));
    if (split) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        c.send(body);
    }
    if (content_length > static_cast<long>(body.size()) && !body.empty())
        ::shutdown(c.fd(), SHUT_WR);
    return c.recv_message(std::chrono::seconds(15));
}

}  // namespace zt
