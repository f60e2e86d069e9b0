#include "proxy/proxy_request.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tools/utils/log.h"

proxy_target_record proxy_target{};

namespace {

constexpr std::string_view kProxyPrefix = "GET /proxy?url=http://";
constexpr std::string_view kRequestVerb = "GET ";

bool has(std::string_view head, std::string_view needle) {
    return head.find(needle) != std::string_view::npos;
}

// The value after key up to the end of its line (without CR or LF); false when key is absent.
bool line_value(std::string_view head, std::string_view key, std::string_view* value) {
    size_t at = head.find(key);
    if (at == std::string_view::npos) return false;
    std::string_view rest = head.substr(at + key.size());
    *value = rest.substr(0, rest.find_first_of("\r\n"));
    return true;
}

// Copies value into a field of size max + 1; false (field untouched) when it is longer.
template <size_t N>
bool store(char (&field)[N], std::string_view value) {
    if (value.size() >= N) return false;
    std::memcpy(field, value.data(), value.size());
    field[value.size()] = '\0';
    return true;
}

bool refuse(const char* why) {
    log_tagged(zor_log::kRed, "proxy: request refused: %s\n", why);
    return false;
}

// Appends formatted text; false when it does not fit.
bool append(upstream_request* out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
bool append(upstream_request* out, const char* fmt, ...) {
    size_t room = out->text.size() - static_cast<size_t>(out->length);
    va_list args;
    va_start(args, fmt);
    int n = std::vsnprintf(out->text.data() + out->length, room, fmt, args);
    va_end(args);
    if (n < 0 || static_cast<size_t>(n) >= room) return false;
    out->length += n;
    return true;
}

// Takes the remembered target for a request that goes to it; false when none is known.
bool use_target(upstream_request* out) {
    std::lock_guard<std::mutex> hold(proxy_target.lock);
    if (proxy_target.host[0] == '\0') return refuse("no media server known yet");
    std::memcpy(out->host, proxy_target.host, sizeof(out->host));
    out->port = proxy_target.port;
    return append(out, "%s\r\n", proxy_target.request_line);
}

// Case 1: a GET with a Range goes to the remembered target with the last HEAD's User-Agent.
bool build_range(std::string_view head, upstream_request* out) {
    std::string_view range;
    line_value(head, "Range: ", &range);
    if (range.size() > kProxyRangeMax) return refuse("Range value too long");
    if (!use_target(out)) return false;
    std::lock_guard<std::mutex> hold(proxy_target.lock);
    return append(out, "Host: %s:%d\r\nUser-Agent: %s\r\nRange: %.*s\r\n\r\n", out->host,
                  out->port, proxy_target.user_agent, static_cast<int>(range.size()),
                  range.data());
}

// Case 2: the player's first request names the media server; it is remembered.
bool build_first(const proxy_url& url, upstream_request* out) {
    {
        std::lock_guard<std::mutex> hold(proxy_target.lock);
        store(proxy_target.host, url.host);
        proxy_target.port = url.port;
        std::snprintf(proxy_target.request_line, sizeof(proxy_target.request_line), "GET %.*s",
                      static_cast<int>(url.request_rest.size()), url.request_rest.data());
    }
    if (!use_target(out)) return false;
    return append(out,
                  "Accept: */*\r\nUser-Agent: Wget/1.11.4\r\nHost: %s:%d\r\n"
                  "Connection: Keep-Alive\r\n\r\n",
                  out->host, out->port);
}

// Case 4: a HEAD becomes a GET of the remembered request line with the player's User-Agent.
bool build_head(std::string_view user_agent, upstream_request* out) {
    if (user_agent.size() > kProxyUserAgentMax) return refuse("User-Agent too long");
    {
        std::lock_guard<std::mutex> hold(proxy_target.lock);
        store(proxy_target.user_agent, user_agent);
    }
    if (!use_target(out)) return false;
    return append(out, "Host: %s:%d\r\nUser-Agent: %.*s\r\n\r\n", out->host, out->port,
                  static_cast<int>(user_agent.size()), user_agent.data());
}

// Case 5: the header block and the body bytes that came with it, unchanged.
bool build_forward(const net_message& request, int read_count, upstream_request* out) {
    {
        std::lock_guard<std::mutex> hold(proxy_target.lock);
        if (proxy_target.host[0] == '\0') return refuse("no media server known yet");
        std::memcpy(out->host, proxy_target.host, sizeof(out->host));
        out->port = proxy_target.port;
    }
    size_t head = strnlen(request.head, sizeof(request.head));
    size_t body = static_cast<size_t>(std::clamp(read_count - request.header_len, 0,
                                                 static_cast<int>(sizeof(request.body))));
    std::memcpy(out->text.data(), request.head, head);
    std::memcpy(out->text.data() + head, request.body, body);
    out->length = static_cast<int>(head + body);
    return true;
}

}  // namespace

proxy_url_result proxy_parse_url(std::string_view head, proxy_url* out) {
    size_t at = head.find(kProxyPrefix);
    if (at == std::string_view::npos) return kProxyUrlAbsent;
    std::string_view line = head.substr(at + kProxyPrefix.size());
    line = line.substr(0, line.find_first_of("\r\n"));
    size_t colon = line.find(':');
    size_t slash = line.find('/');
    if (colon == std::string_view::npos || slash == std::string_view::npos || slash < colon)
        return kProxyUrlBad;
    std::string_view host = line.substr(0, colon);
    std::string_view digits = line.substr(colon + 1, slash - colon - 1);
    std::string_view rest = line.substr(slash);
    if (host.empty() || host.size() > kProxyHostMax) return kProxyUrlBad;
    if (digits.empty() || digits.size() > kProxyPortDigitsMax) return kProxyUrlBad;
    int port = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return kProxyUrlBad;
        port = port * 10 + (c - '0');
    }
    if (port < 1 || port > 65535) return kProxyUrlBad;
    if (kRequestVerb.size() + rest.size() > kProxyRequestLineMax) return kProxyUrlBad;
    *out = proxy_url{host, port, rest};
    return kProxyUrlOk;
}

char* add_header_line(char* block, const char* line) {
    if (block == nullptr || line == nullptr || line[0] == '\0') return block;
    std::string_view text(block, strnlen(block, kTextSize));
    size_t crlf = text.find("\r\n\r\n");
    size_t lf = text.find("\n\n");
    size_t at = std::min(crlf, lf);
    if (at == std::string_view::npos) return block;
    size_t pos = at + (at == crlf ? 2 : 1);
    if (pos + 5 > kTextSize) return block;  // no room left for the blank line and its NUL
    for (const char* c = line; *c != '\0' && pos + 5 <= kTextSize - 1; ++c) block[pos++] = *c;
    std::memcpy(block + pos, "\r\n\r\n", 5);  // with the closing NUL
    return block;
}

bool proxy_build_upstream(const net_message& request, int read_count, upstream_request* out) {
    out->length = 0;
    std::string_view head(request.head, strnlen(request.head, sizeof(request.head)));
    bool get = has(head, "GET");
    if (get && has(head, "Range: ")) return build_range(head, out);
    if (get && has(head, "Accept: */*")) {
        {
            std::lock_guard<std::mutex> hold(proxy_target.lock);
            proxy_target.host[0] = '\0';
            proxy_target.request_line[0] = '\0';
        }
        proxy_url url;
        proxy_url_result parsed = proxy_parse_url(head, &url);
        if (parsed == kProxyUrlOk) return build_first(url, out);
        if (parsed == kProxyUrlBad) return refuse("malformed proxy URL or a value too long");
    } else if (!get && has(head, "HEAD")) {
        std::string_view user_agent;
        bool named = line_value(head, "User-Agent: ", &user_agent);
        {
            std::lock_guard<std::mutex> hold(proxy_target.lock);
            proxy_target.user_agent[0] = '\0';
        }
        if (named) return build_head(user_agent, out);
    }
    return build_forward(request, read_count, out);
}
