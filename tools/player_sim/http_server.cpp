#include "http_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace sim {

namespace {

// Reads until the blank line that ends the head. Returns the head, or nullopt when the
// client closed, sent more than the limit, or took longer than the time-out.
std::optional<std::string> read_head(int fd) {
    std::string head;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kRequestTimeoutMs);
    char buf[2048];
    while (head.find("\r\n\r\n") == std::string::npos && head.find("\n\n") == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || head.size() >= kMaxRequestHead) return std::nullopt;
        pollfd p{fd, POLLIN, 0};
        int r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return std::nullopt;
        ssize_t n = ::read(fd, buf, std::min(sizeof buf, kMaxRequestHead - head.size()));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        head.append(buf, static_cast<size_t>(n));
    }
    return head;
}

// "GET /target HTTP/1.1" -> method and target; false when the line is not of that form.
bool parse_request_line(const std::string& head, Request* req) {
    std::string line = head.substr(0, head.find('\n'));
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t sp1 = line.find(' ');
    size_t sp2 = sp1 == std::string::npos ? sp1 : line.find(' ', sp1 + 1);
    if (sp2 == std::string::npos || sp2 == sp1 + 1) return false;
    if (line.compare(sp2 + 1, 5, "HTTP/") != 0) return false;
    req->method = line.substr(0, sp1);
    req->target = line.substr(sp1 + 1, sp2 - sp1 - 1);
    return true;
}

// Lets the client read the whole reply: closing with unread input would reset the
// connection and could discard the reply before the client reads it.
void finish_connection(int fd) {
    ::shutdown(fd, SHUT_WR);
    char buf[1024];
    for (int i = 0; i < 50; ++i) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 10) < 0 && errno != EINTR) return;
        if (!(p.revents & (POLLIN | POLLHUP | POLLERR))) continue;
        if (::read(fd, buf, sizeof buf) <= 0) return;
    }
}

void serve(Fd conn, const Handler& handler) {
    std::optional<std::string> head = read_head(conn.get());
    if (!head) return;
    Request req;
    if (!parse_request_line(*head, &req)) {
        write_all(conn.get(), http_reply(400, "Bad Request", "text/plain", "bad request line\n"));
        finish_connection(conn.get());
        return;
    }
    std::optional<std::string> reply = handler(req);
    if (!reply) return;  // closed on purpose, without a byte
    write_all(conn.get(), *reply);
    finish_connection(conn.get());
}

}  // namespace

bool HttpServer::listen(const std::string& host, int port, std::string* error) {
    Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.ok()) {
        *error = std::string("socket: ") + strerror(errno);
        return false;
    }
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host.c_str(), &addr.sin_addr) != 1) {
        *error = "not an IPv4 address: " + host;
        return false;
    }
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(fd.get(), 64) != 0) {
        *error = "bind/listen " + host + ":" + std::to_string(port) + ": " + strerror(errno);
        return false;
    }
    listen_fd_ = std::move(fd);
    return true;
}

void HttpServer::run(const Handler& handler, const std::atomic<bool>& stop,
                     const std::function<void()>& on_stop) {
    while (!stop.load()) {
        pollfd p{listen_fd_.get(), POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        int c = ::accept4(listen_fd_.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (c < 0) continue;
        join_workers(false);
        auto done = std::make_shared<std::atomic<bool>>(false);
        std::thread t([c, &handler, done] {
            serve(Fd(c), handler);
            *done = true;
        });
        workers_.push_back(Worker{std::move(t), done});
    }
    listen_fd_.reset();
    on_stop();
    join_workers(true);
}

void HttpServer::join_workers(bool all) {
    for (auto it = workers_.begin(); it != workers_.end();) {
        if (all || it->done->load()) {
            if (it->thread.joinable()) it->thread.join();
            it = workers_.erase(it);
        } else {
            ++it;
        }
    }
}

std::string http_reply(int code, std::string_view reason, std::string_view content_type,
                       std::string_view body) {
    std::string r = "HTTP/1.1 " + std::to_string(code) + " " + std::string(reason) + "\r\n";
    r += "Content-Type: " + std::string(content_type) + "\r\n";
    r += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    r += "Connection: close\r\n\r\n";
    r += body;
    return r;
}

}  // namespace sim
