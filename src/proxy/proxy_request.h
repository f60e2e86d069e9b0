// What one request of the player becomes upstream: the proxy URL, the remembered target
// and the five ways a request is turned into the media server's request.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <string_view>

#include "tools/utils/request.h"

// Limits of what the proxy takes from the player (characters, without a closing NUL).
inline constexpr size_t kProxyHostMax = 127;
inline constexpr size_t kProxyPortDigitsMax = 5;
inline constexpr size_t kProxyRequestLineMax = 4095;  // signed media URLs are long
inline constexpr size_t kProxyUserAgentMax = 255;
inline constexpr size_t kProxyRangeMax = 63;

// The media server the player last opened through the proxy. One process-wide record; the
// proxy's workers read and write it only while holding lock, and never during I/O.
struct proxy_target_record {
    std::mutex lock;
    char host[kProxyHostMax + 1];                // from the last proxy URL
    char request_line[kProxyRequestLineMax + 1];  // "GET " + path, query and version
    char user_agent[kProxyUserAgentMax + 1];      // of the player's last HEAD request
    int port;                                     // from the last proxy URL
};
extern proxy_target_record proxy_target;

// A proxy URL as the player's request line carries it:
// "GET /proxy?url=http://HOST:PORT/PATH[?QUERY] VERSION".
struct proxy_url {
    std::string_view host;          // 1..kProxyHostMax characters, no ':' or '/'
    int port = 0;                   // 1..65535, from 1..kProxyPortDigitsMax digits
    std::string_view request_rest;  // from the '/' after the port to the end of the line
};

enum proxy_url_result {
    kProxyUrlOk,
    kProxyUrlAbsent,  // no "GET /proxy?url=http://" in head
    kProxyUrlBad,     // a missing port, a value beyond its limit, or a line end inside
};

// Finds the proxy URL in head (the first "GET /proxy?url=http://") and splits it. The views
// point into head. The request line ("GET " + request_rest) must stay within
// kProxyRequestLineMax.
proxy_url_result proxy_parse_url(std::string_view head, proxy_url* out);

// Inserts line as the last header line of the block (a NUL-terminated header block in a
// kTextSize buffer): before the first blank line ("\r\n\r\n" or "\n\n"), which becomes
// "\r\n\r\n"; whatever followed the blank line is overwritten, and the line is cut so that
// the block stays within the buffer. A block without a blank line, an empty block or an
// empty line leaves the block unchanged. Returns block.
char* add_header_line(char* block, const char* line);

// Largest upstream request: a forwarded header block with the body bytes that came with it.
inline constexpr size_t kUpstreamLimit = 2 * kTextSize;

// The media server's request for one request of the player, and where it goes.
struct upstream_request {
    std::array<char, kUpstreamLimit> text;
    int length = 0;
    char host[kProxyHostMax + 1] = {};
    int port = 0;
};

// Builds the upstream request for the player's request (read_count: read_request's result),
// learning or using proxy_target as the case requires. Returns false, with one log line,
// when the request cannot be served: no target known, or a value beyond its limit.
bool proxy_build_upstream(const net_message& request, int read_count, upstream_request* out);
