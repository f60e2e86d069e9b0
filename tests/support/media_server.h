// The sender's media server in a test: serves one file (repeated `repeat` times as one body)
// at any path with Content-Length (none for a path with "nolength"), answers HEAD and
// "Range: bytes=N-", and keeps every request byte for byte.
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
    // Waits until count requests have arrived; returns the last of them ("" on time-out).
    std::string wait_request(size_t count,
                             std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // While held, requests are logged but answered only once released.
    void hold(bool on) { held_ = on; }

   private:
    void serve(int fd);

    std::string file_;
    long long size_ = 0;
    int listen_fd_ = -1;
    std::atomic<bool> stop_{false}, held_{false};
    std::thread acceptor_;
    mutable std::mutex lock_;  // guards the two below
    std::vector<std::string> requests_;
    std::vector<std::thread> workers_;
};

}  // namespace zt
