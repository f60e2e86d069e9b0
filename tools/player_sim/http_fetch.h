// The player's side of fetching a video: a plain HTTP/1.1 GET over TCP whose body is
// counted and thrown away, as a player that streams and forgets would.
#pragma once

#include <atomic>
#include <functional>
#include <string>

namespace sim {

struct HttpUrl {
    std::string host;  // name or IPv4 address
    int port = 80;
    std::string path;         // from the first '/' after the host on; "/" when absent
    std::string host_header;  // host and port exactly as written in the URL
};

// Splits "http://host[:port][/path]". Returns false for any other form.
bool split_http_url(const std::string& url, HttpUrl* out);

struct FetchResult {
    bool ok = false;      // a 2xx answer with at least one body byte
    int status = 0;       // the HTTP status code, 0 when none arrived
    long long bytes = 0;  // body bytes received
    std::string error;    // why it failed, for the log
};

// Fetches url until the body ends, the server closes, nothing arrives for a long while, or
// cancel is set. on_body(n) is called for every piece of body that arrives.
FetchResult http_fetch(const std::string& url, const std::atomic<bool>& cancel,
                       const std::function<void(size_t)>& on_body);

}  // namespace sim
