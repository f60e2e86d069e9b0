#include "support/media_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "support/support.h"

namespace zt {

MediaFileServer::~MediaFileServer() {
    stop_ = true;
    if (acceptor_.joinable()) acceptor_.join();
    {
        std::lock_guard<std::mutex> hold(lock_);
        for (int fd : clients_) ::shutdown(fd, SHUT_RDWR);
    }
    for (std::thread& t : workers_) t.join();
    if (listen_fd_ >= 0) ::close(listen_fd_);
}

bool MediaFileServer::start(std::string file, const std::string& host, int port,
                            long long repeat) {
    file_ = std::move(file);
    repeat_ = std::max(1LL, repeat);
    listen_fd_ = listen_on(host, port);
    if (listen_fd_ < 0) return false;
    acceptor_ = std::thread([this] {
        while (!stop_) {
            int fd = accept_one(listen_fd_, std::chrono::milliseconds(100));
            if (fd < 0) continue;
            std::lock_guard<std::mutex> hold(lock_);
            clients_.push_back(fd);
            workers_.emplace_back([this, fd] { serve(fd); });
        }
    });
    return true;
}

std::vector<std::string> MediaFileServer::requests() const {
    std::lock_guard<std::mutex> hold(lock_);
    return requests_;
}

std::string MediaFileServer::wait_request(size_t count, std::chrono::milliseconds timeout) const {
    if (!wait_until([&] { return requests().size() >= count; }, timeout)) return "";
    return requests().at(count - 1);
}

std::string MediaFileServer::bytes_from(long long offset) const {
    std::string out;
    for (long long at = offset; at < size(); at += static_cast<long long>(file_.size()))
        out += file_.substr(static_cast<size_t>(at % static_cast<long long>(file_.size())));
    return out;
}

bool MediaFileServer::send_body(int fd, long long offset) const {
    long long size = static_cast<long long>(file_.size());
    for (long long at = offset; at < this->size() && !stop_;) {
        long long in_file = at % size;
        ssize_t n = ::send(fd, file_.data() + in_file, static_cast<size_t>(size - in_file),
                           MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += n;
    }
    return true;
}

// Keep-alive: requests are answered in turn until the client closes.
void MediaFileServer::serve(int fd) {
    Client peer(fd);
    while (!stop_) {
        std::string request = peer.recv_message(std::chrono::seconds(30));
        if (request.empty()) break;
        {
            std::lock_guard<std::mutex> hold(lock_);
            requests_.push_back(request);
        }
        while (held_ && !stop_) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::string head_block = request.substr(0, request.find("\r\n\r\n"));
        std::string range = header_value(request, "Range");
        long long offset = range.starts_with("bytes=") ? std::atoll(range.c_str() + 6) : 0;
        offset = std::clamp(offset, 0LL, size());
        bool head_only = request.starts_with("HEAD");
        std::string reply;
        if (head_block.find("nolength") != std::string::npos) {
            peer.send("HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\n\r\n");
            send_body(fd, 0);
            break;
        }
        if (offset > 0)
            reply = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " +
                    std::to_string(offset) + "-" + std::to_string(size() - 1) + "/" +
                    std::to_string(size()) + "\r\n";
        else
            reply = "HTTP/1.1 200 OK\r\n";
        reply += "Content-Type: video/mp4\r\nContent-Length: " + std::to_string(size() - offset) +
                 "\r\n\r\n";
        if (!peer.send(reply) || (!head_only && !send_body(fd, offset))) break;
    }
    std::lock_guard<std::mutex> hold(lock_);
    clients_.erase(std::remove(clients_.begin(), clients_.end(), fd), clients_.end());
}

}  // namespace zt
