#include "http_fetch.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "sim_util.h"

namespace sim {

namespace {

constexpr int kConnectTimeoutMs = 5000;
constexpr int kIdleTimeoutMs = 30000;  // a stalled server counts as a failed fetch
constexpr size_t kMaxResponseHead = 16384;
constexpr int kSliceMs = 100;  // how often a waiting fetch looks at cancel

// Waits for events on fd in short slices so that stop is noticed. Returns the revents,
// 0 on time-out or stop.
short wait_fd(int fd, short events, int timeout_ms, const StopCheck& stop) {
    for (int waited = 0; waited < timeout_ms && !stop(); waited += kSliceMs) {
        pollfd p{fd, events, 0};
        int r = ::poll(&p, 1, kSliceMs);
        if (r > 0) return p.revents;
        if (r < 0 && errno != EINTR) return POLLERR;
    }
    return 0;
}

Fd connect_host(const HttpUrl& u, const StopCheck& stop, std::string* error) {
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
    for (addrinfo* a = res; a && !out.ok() && !stop(); a = a->ai_next) {
        Fd fd(::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (!fd.ok()) continue;
        if (::connect(fd.get(), a->ai_addr, a->ai_addrlen) != 0 && errno != EINPROGRESS) continue;
        if (!(wait_fd(fd.get(), POLLOUT, kConnectTimeoutMs, stop) & POLLOUT)) continue;
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

// Reads one piece; returns bytes read, 0 at the end, -1 on error, idle time-out or stop.
ssize_t read_some(int fd, char* buf, size_t size, const StopCheck& stop) {
    for (;;) {
        short ev = wait_fd(fd, POLLIN, kIdleTimeoutMs, stop);
        if (!ev) return -1;
        ssize_t n = ::read(fd, buf, size);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        return n;
    }
}

long long header_content_length(const std::string& head) {
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

bool HttpStream::open(const HttpUrl& u, const std::string& method, const std::string& headers,
                      const StopCheck& stop, std::string* error) {
    fd_ = connect_host(u, stop, error);
    if (!fd_.ok()) return false;
    fcntl(fd_.get(), F_SETFL, fcntl(fd_.get(), F_GETFL) & ~O_NONBLOCK);
    std::string req = method + " " + request_path(u.path) + " HTTP/1.1\r\nHost: " +
                      u.host_header + "\r\n" + headers + "\r\n";
    if (!write_all(fd_.get(), req)) {
        *error = "cannot send the request";
        return false;
    }
    std::string head;
    char buf[16384];
    size_t end = std::string::npos;
    while ((end = head.find("\r\n\r\n")) == std::string::npos) {
        ssize_t n = read_some(fd_.get(), buf, sizeof buf, stop);
        if (n <= 0 || head.size() > kMaxResponseHead) {
            *error = stop() ? "cancelled" : "no complete response head";
            return false;
        }
        head.append(buf, static_cast<size_t>(n));
    }
    status_ = head.compare(0, 5, "HTTP/") == 0 && head.size() > 12 ? atoi(head.c_str() + 9) : 0;
    if (status_ < 200 || status_ > 299) {
        *error = "status " + std::to_string(status_);
        return false;
    }
    length_ = header_content_length(head);
    early_ = head.substr(end + 4);
    return true;
}

ssize_t HttpStream::read_body(char* buf, size_t size, const StopCheck& stop) {
    if (length_ >= 0 && received_ >= length_) return 0;
    if (length_ >= 0) size = static_cast<size_t>(std::min<long long>(size, length_ - received_));
    ssize_t n;
    if (!early_.empty()) {
        n = static_cast<ssize_t>(std::min(size, early_.size()));
        early_.copy(buf, static_cast<size_t>(n));
        early_.erase(0, static_cast<size_t>(n));
    } else {
        n = read_some(fd_.get(), buf, size, stop);
    }
    if (n > 0) received_ += n;
    return n;
}

}  // namespace sim
