// Helpers of the AirPlay tests: reading replies and property lists the way a sender does.
#pragma once

#include <time.h>

#include <string>

#include "support/support.h"

namespace zt {

// The reply with its Date value replaced by "<date>", so the rest compares byte for byte.
inline std::string without_date(const std::string& reply) {
    size_t at = reply.find("\r\nDate: ");
    if (at == std::string::npos) return reply;
    at += 8;
    size_t end = reply.find("\r\n", at);
    if (end == std::string::npos) return reply;
    return reply.substr(0, at) + "<date>" + reply.substr(end);
}

// True when the Date value reads like "Mon, 02 Jan 2006 15:04:05 UTC".
inline bool date_is_well_formed(const std::string& reply) {
    std::string date = header_value(reply, "Date");
    tm parsed{};
    const char* rest = strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S", &parsed);
    return rest != nullptr && rest[0] == ' ' && rest[1] != '\0' && date.size() >= 25;
}

// The text inside the element that follows <key>key</key> ("" when absent).
inline std::string plist_value(const std::string& body, const std::string& key) {
    std::string tag = "<key>" + key + "</key>";
    size_t at = body.find(tag);
    if (at == std::string::npos) return {};
    size_t open = body.find('>', body.find('<', at + tag.size()));
    size_t close = body.find("</", open);
    if (open == std::string::npos || close == std::string::npos) return {};
    return body.substr(open + 1, close - open - 1);
}

// Sends one request and reads the one reply.
inline std::string ask(Client& c, const std::string& request) {
    if (!c.send(request)) return {};
    return c.recv_message();
}

inline const std::string kDoctype =
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">";

}  // namespace zt
