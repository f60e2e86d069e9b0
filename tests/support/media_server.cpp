#include "support/media_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "support/support.h"

namespace zt {

MediaFileServer::~MediaFileServer() {
    stop_ = true;
    if (acceptor_.joinable()) acceptor_.join();
    for (std::thread& t : workers_) t.join();
    if (listen_fd_ >= 0) ::close(listen_fd_);
}

bool MediaFileServer::start(std::string file, const std::string& host, int port, long long repeat) {
    file_ = std::move(file);
    size_ = static_cast<long long>(file_.size()) * repeat;
    if ((listen_fd_ = listen_on(host, port)) < 0) return false;
    acceptor_ = std::thread([this] {
        while (!stop_) {
            int fd = accept_one(listen_fd_, std::chrono::milliseconds(100));
            std::lock_guard<std::mutex> hold(lock_);
            if (fd >= 0) workers_.emplace_back([this, fd] { serve(fd); });
        }
    });
    return true;
}

std::string MediaFileServer::wait_request(size_t count, std::chrono::milliseconds timeout) const {
    std::string out;
    wait_until(
        [&] {
            std::lock_guard<std::mutex> hold(lock_);
            return requests_.size() >= count && !(out = requests_[count - 1]).empty();
        },
        timeout);
    return out;
}

void MediaFileServer::serve(int fd) {
    Client peer(fd);
    std::string request = peer.recv_message(std::chrono::seconds(5));
    if (request.empty()) return;
    {
        std::lock_guard<std::mutex> hold(lock_);
        requests_.push_back(request);
    }
    while (held_ && !stop_) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::string range = header_value(request, "Range");
    long long offset =
        std::clamp(range.starts_with("bytes=") ? std::atoll(&range[6]) : 0LL, 0LL, size_);
    std::string reply = offset > 0 ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n";
    if (request.find("nolength") == std::string::npos)
        reply += "Content-Length: " + std::to_string(size_ - offset) + "\r\n";
    if (!peer.send(reply + "\r\n") || request.starts_with("HEAD")) return;
    for (long long at = offset, n = 1; at < size_ && n > 0 && !stop_; at += n) {
        size_t in_file = static_cast<size_t>(at) % file_.size();
        n = ::send(fd, &file_[in_file], file_.size() - in_file, MSG_NOSIGNAL);
    }
}

}  // namespace zt
