// Shared helpers of the test programs: child processes, TCP clients and waiting for
// conditions. Everything here is for tests run inside tests/sandbox.sh.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace zt {

// Directory of the build (executables at its root) and of the sources.
std::string build_dir();
std::string source_dir();

// Polls cond every 20 ms until it holds or timeout passes. Returns its last value.
bool wait_until(const std::function<bool()>& cond,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Reads a whole file ("" when it does not exist).
std::string read_file(const std::string& path);
bool file_exists(const std::string& path);

// A child process with its standard output and error going to a log file.
class Process {
   public:
    Process() = default;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    // Starts argv[0] with argv; output goes to log_path. Returns false if fork failed.
    bool start(const std::vector<std::string>& argv, const std::string& log_path);
    // Sends sig and waits up to timeout for the exit. Returns the exit status, or -1 if it
    // did not end (it is then killed).
    int stop(int sig, std::chrono::milliseconds timeout = std::chrono::seconds(12));
    // Waits for the process to end by itself. Returns the exit status or -1 on time-out.
    int wait_exit(std::chrono::milliseconds timeout);
    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    std::string log() const { return read_file(log_path_); }

   private:
    pid_t pid_ = -1;
    std::string log_path_;
};

// A blocking TCP client with a 10 s receive time-out.
class Client {
   public:
    Client() = default;
    explicit Client(int fd) : fd_(fd) {}
    Client(Client&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Client& operator=(Client&& other) noexcept;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();

    // Connects to host:port, retrying for up to retry_for while refused.
    static Client connect(const std::string& host, int port,
                          std::chrono::milliseconds retry_for = std::chrono::seconds(5));
    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    bool send(const std::string& bytes);
    // Reads what arrives within timeout (at most max bytes); "" on close or time-out.
    std::string recv_some(std::chrono::milliseconds timeout = std::chrono::seconds(5),
                          size_t max = 65536);
    // Reads one HTTP/RTSP message: header block plus Content-Length body bytes.
    std::string recv_message(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Reads until the peer closes or timeout; returns everything.
    std::string recv_all(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // True when the peer has closed (a read returns 0) within timeout.
    bool closed_by_peer(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    void close();

   private:
    int fd_ = -1;
    std::string pending_;  // bytes read past the last message
};

// A connection from source (an address of the sandbox) to host:port, with a receive buffer of
// rcvbuf bytes when > 0; an invalid Client on failure.
Client connect_from(const std::string& source, const std::string& host, int port, int rcvbuf = 0);

// A connected pair of local stream sockets: the code under test uses `sock`, the test plays
// the peer on `peer`. Both are closed with the pair.
struct SocketPair {
    int sock = -1, peer = -1;
    SocketPair();
    ~SocketPair();
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    // Writes all of bytes on the peer's side; false on failure.
    bool send(const std::string& bytes);
    void close_peer();
};

// A listening socket on host:port (port 0: any). Returns the descriptor or -1.
int listen_on(const std::string& host, int port, int* bound_port = nullptr);

// Accepts one connection within timeout; -1 on time-out.
int accept_one(int listen_fd, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Value of a header in a message ("" if absent); the status code of its first line.
std::string header_value(const std::string& message, const std::string& name);
int status_code(const std::string& message);
std::string body_of(const std::string& message);
// Length of the first whole message in data (header block and Content-Length body); 0 while
// it is incomplete.
size_t message_length(const std::string& data);

}  // namespace zt
