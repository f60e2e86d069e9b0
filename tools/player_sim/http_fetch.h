// The player's side of fetching a video: HTTP/1.1 requests over TCP, one connection each,
// whose bodies are counted and thrown away, as a player that streams and forgets would.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "sim_util.h"

namespace sim {

struct HttpUrl {
    std::string host;  // name or IPv4 address
    int port = 80;
    std::string path;         // from the first '/' after the host on; "/" when absent
    std::string host_header;  // host and port exactly as written in the URL
};

// Splits "http://host[:port][/path]". Returns false for any other form.
bool split_http_url(const std::string& url, HttpUrl* out);

// Says whether a waiting fetch is to give up now (cancelled, or the player moved on).
using StopCheck = std::function<bool()>;

// One HTTP exchange on a connection of its own: the request goes out, the response head is
// read, then the body piece by piece. A stream may also be left open and unread, as the
// box's player leaves the fetch it abandons for a seek.
class HttpStream {
   public:
    // Connects, sends "method path HTTP/1.1", a Host line and the header lines given (each
    // ending in CR LF), and reads the response head. False, with error set, on any failure
    // or a status other than 2xx.
    bool open(const HttpUrl& u, const std::string& method, const std::string& headers,
              const StopCheck& stop, std::string* error);
    int status() const { return status_; }
    long long content_length() const { return length_; }  // -1 when absent
    // The next piece of the body: bytes read (> 0), 0 at its end, -1 on an error, a long
    // silence or stop.
    ssize_t read_body(char* buf, size_t size, const StopCheck& stop);

   private:
    Fd fd_;
    int status_ = 0;
    long long length_ = -1;
    long long received_ = 0;
    std::string early_;  // body bytes that came with the head
};

}  // namespace sim
