// The sender's media server in a test: serves one file at any path with Content-Length,
// answers HEAD and "Range: bytes=N-", and keeps every request it receives byte for byte.
// A path containing "nolength" gets the file without Content-Length (then the close).
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zt {

class MediaFileServer {
   public:
    MediaFileServer() = default;
    MediaFileServer(const MediaFileServer&) = delete;
    MediaFileServer& operator=(const MediaFileServer&) = delete;
    ~MediaFileServer();

    // Serves file, repeated `repeat` times as one body (for large bodies without the memory),
    // on host:port. False when the port cannot be had.
    bool start(std::string file, const std::string& host = "192.0.2.20", int port = 8080,
               long long repeat = 1);
    // The requests received so far: header block plus the Content-Length body, as sent.
    std::vector<std::string> requests() const;
    // Waits until count requests have arrived; returns the last of them ("" on time-out).
    std::string wait_request(size_t count,
                             std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    long long size() const { return static_cast<long long>(file_.size()) * repeat_; }
    // While held, requests are taken and logged but answered only once released.
    void hold(bool on) { held_ = on; }
    // The body bytes from offset on, as the server sends them.
    std::string bytes_from(long long offset) const;

   private:
    void serve(int fd);
    bool send_body(int fd, long long offset) const;

    std::string file_;
    long long repeat_ = 1;
    int listen_fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<bool> held_{false};
    std::thread acceptor_;
    mutable std::mutex lock_;  // guards requests_, clients_, workers_
    std::vector<std::string> requests_;
    std::vector<int> clients_;
    std::vector<std::thread> workers_;
};

}  // namespace zt
