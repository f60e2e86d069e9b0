#include "http_fetch.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "sim_util.h"

namespace sim {

namespace {

constexpr int kConnectTimeoutMs = 5000;
constexpr int kIdleTimeoutMs = 30000;  // a stalled server counts as a failed fetch
constexpr size_t kMaxResponseHead = 16384;
constexpr int kSliceMs = 100;  // how often a waiting fetch looks at cancel

// Waits for events on fd in short slices so that cancel is noticed. Returns the revents,
// 0 on time-out or cancel.
short wait_fd(int fd, short events, int timeout_ms, const std::atomic<bool>& cancel) {
    for (int waited = 0; waited < timeout_ms && !cancel.load(); waited += kSliceMs) {
        pollfd p{fd, events, 0};
        int r = ::poll(&p, 1, kSliceMs);
        if (r > 0) return p.revents;
        if (r < 0 && errno != EINTR) return POLLERR;
    }
    return 0;
}

Fd connect_host(const HttpUrl& u, const std::atomic<bool>& cancel, std::string* error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    int rc = getaddrinfo(u.host.c_str(), std::to_string(u.port).c_str(), &hints, &res);
    if (rc != 0) {
        *error = "cannot resolve " + u.host + ": " + gai_strerror(rc);
        return Fd();
    }
    Fd out;
    for (addrinfo* a = res; a && !out.ok() && !cancel.load(); a = a->ai_next) {
        Fd fd(::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (!fd.ok()) continue;
        if (::connect(fd.get(), a->ai_addr, a->ai_addrlen) != 0 && errno != EINPROGRESS) continue;
        if (!(wait_fd(fd.get(), POLLOUT, kConnectTimeoutMs, cancel) & POLLOUT)) continue;
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len);
        if (err == 0)
            out = std::move(fd);
        else
            *error = std::string("connect: ") + strerror(err);
    }
    freeaddrinfo(res);
    if (!out.ok() && error->empty()) *error = "cannot connect to " + u.host_header;
    return out;
}

// Bytes a request line cannot carry as they are get percent-encoded, as HTTP clients do.
std::string request_path(const std::string& path) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (c <= 0x20 || c >= 0x7f) {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Reads one piece; returns bytes read, 0 at the end, -1 on error, idle time-out or cancel.
ssize_t read_some(int fd, char* buf, size_t size, const std::atomic<bool>& cancel) {
    for (;;) {
        short ev = wait_fd(fd, POLLIN, kIdleTimeoutMs, cancel);
        if (!ev) return -1;
        ssize_t n = ::read(fd, buf, size);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        return n;
    }
}

long long content_length(const std::string& head) {
    size_t pos = 0;
    while ((pos = head.find('\n', pos)) != std::string::npos) {
        ++pos;
        if (strncasecmp(head.c_str() + pos, "Content-Length:", 15) == 0)
            return atoll(head.c_str() + pos + 15);
    }
    return -1;
}

}  // namespace

bool split_http_url(const std::string& url, HttpUrl* out) {
    if (strncasecmp(url.c_str(), "http://", 7) != 0) return false;
    size_t host_start = 7;
    size_t slash = url.find('/', host_start);
    out->host_header = url.substr(host_start, slash - host_start);
    out->path = slash == std::string::npos ? "/" : url.substr(slash);
    size_t colon = out->host_header.rfind(':');
    out->host = out->host_header.substr(0, colon);
    out->port = 80;
    if (colon != std::string::npos) {
        std::string port = out->host_header.substr(colon + 1);
        if (port.empty() || port.find_first_not_of("0123456789") != std::string::npos) return false;
        out->port = atoi(port.c_str());
    }
    return !out->host.empty() && out->port > 0 && out->port < 65536;
}

FetchResult http_fetch(const std::string& url, const std::atomic<bool>& cancel,
                       const std::function<void(size_t)>& on_body) {
    FetchResult r;
    HttpUrl u;
    if (!split_http_url(url, &u)) {
        r.error = "not an http:// URL: " + url;
        return r;
    }
    Fd fd = connect_host(u, cancel, &r.error);
    if (!fd.ok()) return r;
    std::string req = "GET " + request_path(u.path) + " HTTP/1.1\r\nHost: " + u.host_header +
                      "\r\nUser-Agent: player_sim\r\nAccept: */*\r\nConnection: close\r\n\r\n";
    int fl = fcntl(fd.get(), F_GETFL);
    fcntl(fd.get(), F_SETFL, fl & ~O_NONBLOCK);
    if (!write_all(fd.get(), req)) {
        r.error = "cannot send the request";
        return r;
    }
    std::string head;
    char buf[65536];
    size_t end = std::string::npos;
    while ((end = head.find("\r\n\r\n")) == std::string::npos) {
        ssize_t n = read_some(fd.get(), buf, sizeof buf, cancel);
        if (n <= 0 || head.size() > kMaxResponseHead) {
            r.error = cancel.load() ? "cancelled" : "no complete response head";
            return r;
        }
        head.append(buf, static_cast<size_t>(n));
    }
    r.status = head.compare(0, 5, "HTTP/") == 0 && head.size() > 12 ? atoi(head.c_str() + 9) : 0;
    if (r.status < 200 || r.status > 299) {
        r.error = "status " + std::to_string(r.status);
        return r;
    }
    long long want = content_length(head);
    size_t early = head.size() - end - 4;
    if (early > 0) {
        r.bytes += static_cast<long long>(early);
        on_body(early);
    }
    while (want < 0 || r.bytes < want) {
        ssize_t n = read_some(fd.get(), buf, sizeof buf, cancel);
        if (n <= 0) break;
        r.bytes += n;
        on_body(static_cast<size_t>(n));
    }
    r.ok = r.bytes > 0;
    if (!r.ok) r.error = cancel.load() ? "cancelled" : "empty body";
    return r;
}

}  // namespace sim
