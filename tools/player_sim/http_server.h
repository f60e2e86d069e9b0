// The player control service's transport: one request per connection, each connection on
// its own thread, so that a reply held back on purpose does not hold up other commands.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "sim_util.h"

namespace sim {

// Limits on what a client may send before it gets an answer.
constexpr size_t kMaxRequestHead = 8192;
constexpr int kRequestTimeoutMs = 5000;

struct Request {
    std::string method;
    std::string target;  // exactly as it appeared in the request line
};

// Returns the bytes to send back, or nullopt to close the connection without answering.
using Handler = std::function<std::optional<std::string>(const Request&)>;

class HttpServer {
   public:
    HttpServer() = default;
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    ~HttpServer() { join_workers(true); }

    // Binds and listens on host:port. On failure returns false with a reason in *error.
    bool listen(const std::string& host, int port, std::string* error);
    // Accepts and serves connections until stop is set; then calls on_stop (which must end
    // the handler's waits) and waits for the connection threads.
    void run(const Handler& handler, const std::atomic<bool>& stop,
             const std::function<void()>& on_stop);

   private:
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    void join_workers(bool all);

    Fd listen_fd_;
    std::vector<Worker> workers_;  // touched by the accepting thread only
};

// A complete HTTP/1.1 reply that closes the connection.
std::string http_reply(int code, std::string_view reason, std::string_view content_type,
                       std::string_view body);

}  // namespace sim
