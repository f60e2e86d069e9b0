#include "support/support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/box.h"
#include "support/media_server.h"

namespace zt {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

std::string env_or(const char* name, const char* fallback) {
    const char* v = std::getenv(name);
    return v && *v ? v : fallback;
}

bool wait_readable(int fd, milliseconds timeout) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(timeout.count())) > 0;
}

// Binds (source) or connects (else) fd to host:port; false on failure.
bool attach(int fd, const std::string& host, int port, bool bind) {
    sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(port)), {}, {}};
    ::inet_pton(AF_INET, host.c_str(), &a.sin_addr);
    auto* sa = reinterpret_cast<sockaddr*>(&a);
    return (bind ? ::bind(fd, sa, sizeof(a)) : ::connect(fd, sa, sizeof(a))) == 0;
}

// Appends what arrives before the deadline; the read's result (0: closed, < 0: failed or
// time-out, then errno is ETIMEDOUT).
ssize_t read_more(int fd, std::string& data, Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    if (left.count() < 0 || !wait_readable(fd, left)) return errno = ETIMEDOUT, -1;
    char buf[8192];
    ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
    if (n > 0) data.append(buf, static_cast<size_t>(n));
    return n;
}

// A sanitizer report must fail the test though the exit status may not tell (another
// thread's report, or a process stopped by a signal).
void expect_no_sanitizer_report(const char* name, const std::string& log) {
    for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                             "runtime error:", "WARNING: ThreadSanitizer"})
        if (size_t at = log.find(mark); at != std::string::npos)
            ADD_FAILURE() << name << ": " << log.substr(at, 4000);
}

}  // namespace

std::string build_dir() { return env_or("ZOR_BUILD_DIR", ZOR_DEFAULT_BUILD_DIR); }
std::string source_dir() { return env_or("ZOR_SOURCE_DIR", ZOR_DEFAULT_SOURCE_DIR); }

bool wait_until(const std::function<bool()>& cond, milliseconds timeout) {
    for (auto deadline = Clock::now() + timeout; Clock::now() < deadline;
         std::this_thread::sleep_for(milliseconds(20)))
        if (cond()) return true;
    return cond();
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool file_exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

bool Process::start(const std::vector<std::string>& argv, const std::string& log_path) {
    log_path_ = log_path;
    if ((pid_ = ::fork()) != 0) return pid_ > 0;
    int fd = ::open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, 1), ::dup2(fd, 2), ::close(fd);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
}

int Process::wait_exit(milliseconds timeout) {
    int status = 0;
    if (pid_ <= 0 ||
        !wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout))
        return -1;
    pid_ = -1;
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Process::stop(int sig, milliseconds timeout) {
    if (pid_ > 0) ::kill(pid_, sig);
    const int rc = wait_exit(timeout);
    if (rc == -1 && pid_ > 0)  // it hung: kill and reap it
        ::kill(pid_, SIGKILL), ::waitpid(std::exchange(pid_, -1), nullptr, 0);
    return rc;
}

Client& Client::operator=(Client&& other) noexcept {
    close(), std::swap(fd_, other.fd_), std::swap(pending_, other.pending_);
    return *this;
}

Client Client::connect(const std::string& host, int port, milliseconds retry_for) {
    for (auto deadline = Clock::now() + retry_for;; std::this_thread::sleep_for(milliseconds(50))) {
        Client c(::socket(AF_INET, SOCK_STREAM, 0));
        if (attach(c.fd(), host, port, false)) return c;
        if (Clock::now() >= deadline) return Client();
    }
}

bool Client::send(const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

std::string Client::recv_some(milliseconds timeout) {
    if (pending_.empty()) read_more(fd_, pending_, Clock::now() + timeout);
    return std::exchange(pending_, {});
}

std::string Client::recv_message(milliseconds timeout) {
    for (auto deadline = Clock::now() + timeout; message_length(pending_) == 0;)
        if (read_more(fd_, pending_, deadline) <= 0) return std::exchange(pending_, {});
    std::string message = pending_.substr(0, message_length(pending_));
    pending_.erase(0, message.size());
    return message;
}

std::string Client::recv_all(milliseconds timeout) {
    for (auto deadline = Clock::now() + timeout; read_more(fd_, pending_, deadline) > 0;) continue;
    return std::exchange(pending_, {});
}

bool Client::closed_by_peer(milliseconds timeout) {
    ssize_t n = 1;
    for (auto deadline = Clock::now() + timeout; n > 0;) n = read_more(fd_, pending_, deadline);
    return n == 0 || errno == ECONNRESET;
}

Client connect_from(const std::string& source, const std::string& host, int port, int rcvbuf) {
    Client c(::socket(AF_INET, SOCK_STREAM, 0));
    if (rcvbuf > 0) ::setsockopt(c.fd(), SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    return attach(c.fd(), source, 0, true) && attach(c.fd(), host, port, false) ? std::move(c)
                                                                                : Client();
}

int listen_on(const std::string& host, int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0), one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    return attach(fd, host, port, true) && ::listen(fd, 16) == 0 ? fd : (::close(fd), -1);
}

int accept_one(int listen_fd, milliseconds timeout) {
    return wait_readable(listen_fd, timeout) ? ::accept(listen_fd, nullptr, nullptr) : -1;
}

std::string header_value(const std::string& message, const std::string& name) {
    size_t at = message.find("\r\n" + name + ":");
    if (at == std::string::npos) return {};
    at = message.find_first_not_of(' ', at + name.size() + 3);
    return at == std::string::npos ? "" : message.substr(at, message.find("\r\n", at) - at);
}

int status_code(const std::string& message) {
    size_t sp = message.find(' ');
    return sp == std::string::npos ? -1 : std::atoi(message.c_str() + sp + 1);
}

size_t message_length(const std::string& data) {
    size_t end = data.find("\r\n\r\n");
    if (end == std::string::npos) return 0;
    const std::string length = header_value(data.substr(0, end + 4), "Content-Length");
    size_t total = end + 4 + std::strtoul(length.c_str(), nullptr, 10);
    return data.size() >= total ? total : 0;
}

std::string body_of(const std::string& message) {
    size_t end = message.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : message.substr(end + 4);
}

bool Box::start_player(const std::vector<std::string>& options) {
    std::vector<std::string> argv{build_dir() + "/player_sim", "--out", kSimOut};
    argv.insert(argv.end(), options.begin(), options.end());
    return player_.start(argv, "/tmp/player_sim.log") &&
           wait_until([] { return Client::connect("127.0.0.1", 8008, {}).ok(); });
}

bool Box::start_daemon() {
    return daemon_.start({build_dir() + "/zor_airplay"}, "/tmp/zor_airplay.log") &&
           wait_until([] { return Client::connect("127.0.0.1", 7000, {}).ok(); });
}

void Box::stop() {
    if (daemon_.pid() <= 0 && player_.pid() <= 0) return;
    daemon_.stop(SIGTERM), player_.stop(SIGTERM, std::chrono::seconds(5));  // no-ops if not running
    expect_no_sanitizer_report("zor_airplay", daemon_.log());
    expect_no_sanitizer_report("player_sim", player_.log());
}

std::vector<PlayerCommand> Box::commands() const {
    std::vector<PlayerCommand> out;
    std::istringstream in(read_file(std::string(kSimOut) + "/commands.log"));
    PlayerCommand c;
    while (in >> c.time_ms && in.get() == '\t' && std::getline(in, c.name, '\t') &&
           std::getline(in, c.target))
        out.push_back(c);
    return out;
}

std::vector<std::string> Box::targets(const std::string& name) const {
    std::vector<std::string> out;
    for (const auto& c : commands()) if (c.name == name) out.push_back(c.target);
    return out;
}

std::string Box::sim(const std::string& target) const {
    auto c = Client::connect("127.0.0.1", 8008);
    c.send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:8008\r\n\r\n");
    return body_of(c.recv_all());
}

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
    wait_until([&] {
        std::lock_guard<std::mutex> hold(lock_);
        return requests_.size() >= count && !(out = requests_[count - 1]).empty();
    }, timeout);
    return out;
}

void MediaFileServer::serve(int fd) {
    Client peer(fd);
    std::string request = peer.recv_message(std::chrono::seconds(5));
    if (request.empty()) return;
    std::unique_lock<std::mutex> hold(lock_);
    requests_.push_back(request);
    hold.unlock();
    while (held_ && !stop_) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const std::string range = header_value(request, "Range");
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
