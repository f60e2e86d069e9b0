// Shared helpers of the test programs, which run inside tests/sandbox.sh.
#pragma once

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zt {

std::string build_dir();   // executables at its root; ZOR_BUILD_DIR overrides
std::string source_dir();  // ZOR_SOURCE_DIR overrides

// Polls cond every 20 ms until it holds or timeout passes; its last value.
bool wait_until(const std::function<bool()>& cond,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));
std::string read_file(const std::string& path);  // "" when missing
bool file_exists(const std::string& path);

// A child process logging stdout and stderr to a file; killed if still running at the end.
class Process {
   public:
    Process() = default;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() { stop(SIGKILL, std::chrono::seconds(5)); }
    bool start(const std::vector<std::string>& argv, const std::string& log_path);
    // Sends sig; the exit status, or -1 when it did not end within timeout (then killed).
    int stop(int sig, std::chrono::milliseconds timeout = std::chrono::seconds(12));
    int wait_exit(std::chrono::milliseconds timeout);
    pid_t pid() const { return pid_; }
    std::string log() const { return read_file(log_path_); }

   private:
    pid_t pid_ = -1;
    std::string log_path_;
};

// A blocking TCP client; reads give "" (or what came) on close or time-out.
class Client {
   public:
    Client() = default;
    explicit Client(int fd) : fd_(fd) {}
    Client(Client&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Client& operator=(Client&& other) noexcept;  // copies deleted by these moves
    ~Client() { close(); }

    static Client connect(const std::string& host, int port,
                          std::chrono::milliseconds retry_for = std::chrono::seconds(5));
    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    bool send(const std::string& bytes);
    std::string recv_some(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Header block plus Content-Length body; later bytes stay for the next read.
    std::string recv_message(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    std::string recv_all(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    bool closed_by_peer(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    void close() { ::close(std::exchange(fd_, -1)); }

   private:
    int fd_ = -1;
    std::string pending_;
};

Client connect_from(const std::string& source, const std::string& host, int port, int rcvbuf = 0);

// The code under test uses sock, the test peer.
struct SocketPair {
    int sock = -1, peer = -1;
    SocketPair() {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) sock = fds[0], peer = fds[1];
    }
    ~SocketPair() { ::close(sock), close_peer(); }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    bool send(const std::string& b) { return write(peer, b.data(), b.size()) == ssize_t(b.size()); }
    void close_peer() { ::close(std::exchange(peer, -1)); }
};

int listen_on(const std::string& host, int port);  // -1 on failure
int accept_one(int listen_fd, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// How many times text occurs in s, overlapping ones included.
inline size_t occurrences(const std::string& s, const std::string& text) {
    size_t n = 0;
    for (size_t at = s.find(text); at != std::string::npos; at = s.find(text, at + 1)) ++n;
    return n;
}
std::string header_value(const std::string& message, const std::string& name);  // "" if absent
int status_code(const std::string& message);
std::string body_of(const std::string& message);
// Length of the first whole message in data; 0 while it is incomplete.
size_t message_length(const std::string& data);

}  // namespace zt
