// The sender's media server: one file (`repeat` times over) at any path, with Content-Length
// unless the path holds "nolength"; HEAD and "Range: bytes=N-"; keeps every request.
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
    ~MediaFileServer();
    bool start(std::string file, const std::string& host = "192.0.2.20", int port = 8080,
               long long repeat = 1);
    // The count-th request once it has arrived ("" on time-out).
    std::string wait_request(size_t count,
                             std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void hold(bool on) { held_ = on; }  // while on, requests are kept but not yet answered

   private:
    void serve(int fd);

    std::string file_;
    long long size_ = 0;
    int listen_fd_ = -1;
    std::atomic<bool> stop_{false}, held_{false};
    std::thread acceptor_;
    mutable std::mutex lock_;  // guards requests_ and workers_
    std::vector<std::string> requests_;
    std::vector<std::thread> workers_;
};

}  // namespace zt
