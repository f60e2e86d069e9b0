// Helpers of the AirPlay tests: reading replies and property lists the way a sender does.
#pragma once

#include <gtest/gtest.h>
#include <time.h>

#include <cstdio>
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

// The daemon's (and player_sim's) log holds no sanitizer report: the sanitizer builds write
// theirs there, and the process goes on, so only this check makes the test fail.
inline void expect_no_sanitizer_report(const std::string& daemon_log) {
    for (const std::string& log : {daemon_log, read_file("/tmp/player_sim.log")}) {
        for (const char* mark : {"runtime error", "AddressSanitizer", "WARNING: ThreadSanitizer"})
            EXPECT_EQ(log.find(mark), std::string::npos) << log;
    }
}

// Small socket buffers for the connections made from now on in this sandbox's network, as
// a box on a slow network has: a peer that stops reading fills them within a few messages.
inline bool use_small_socket_buffers() {
    for (const char* name : {"/proc/sys/net/ipv4/tcp_wmem", "/proc/sys/net/ipv4/tcp_rmem"}) {
        FILE* f = std::fopen(name, "w");
        if (f == nullptr) return false;
        bool ok = std::fputs("4096 4096 4096", f) >= 0;
        ok = std::fclose(f) == 0 && ok;
        if (!ok) return false;
    }
    return true;
}

inline const std::string kDoctype =
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">";

}  // namespace zt
