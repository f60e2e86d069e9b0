#include "proxy/proxy_relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "main/daemon.h"
#include "tools/utils/conn.h"
#include "tools/utils/log.h"
#include "tools/utils/net.h"

namespace {

// A relay's pipe: bytes move socket -> pipe -> socket inside the kernel, never through
// user memory. A bigger pipe means fewer calls per MiB.
constexpr int kPipeSize = 1024 * 1024;
constexpr int kCopyChunk = 64 * 1024;

class fd_pair {
   public:
    fd_pair() {
        if (pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0) fds_[0] = fds_[1] = -1;
    }
    ~fd_pair() {
        if (fds_[0] >= 0) close(fds_[0]);
        if (fds_[1] >= 0) close(fds_[1]);
    }
    fd_pair(const fd_pair&) = delete;
    fd_pair& operator=(const fd_pair&) = delete;
    bool ok() const { return fds_[0] >= 0; }
    int read_end() const { return fds_[0]; }
    int write_end() const { return fds_[1]; }

   private:
    int fds_[2];
};

// Makes a socket non-blocking for the relay and puts its flags back afterwards.
class nonblocking {
   public:
    explicit nonblocking(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
        if (flags_ >= 0) fcntl(fd, F_SETFL, flags_ | O_NONBLOCK);
    }
    ~nonblocking() {
        if (flags_ >= 0) fcntl(fd_, F_SETFL, flags_);
    }
    nonblocking(const nonblocking&) = delete;
    nonblocking& operator=(const nonblocking&) = delete;

   private:
    int fd_;
    int flags_;
};

// Waits until `from` is readable (want_in) or `to` writable (want_out), up to the stall
// limit counted from the last progress. False on the stall limit, a failure or the stop.
bool wait_either(int from, bool want_in, int to, bool want_out, net_deadline give_up) {
    for (;;) {
        pollfd fds[3] = {{want_in ? from : -1, POLLIN, 0},
                         {want_out ? to : -1, POLLOUT, 0},
                         {get_stop_fd(), POLLIN, 0}};
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(give_up - net_clock::now());
        if (left.count() <= 0 || get_stop_flag() == 1) return false;
        int n = poll(fds, 3, static_cast<int>(left.count()));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || fds[2].revents != 0) return false;
        if (n > 0) return true;  // ready, or an error the next call reports
    }
}

bool would_block() {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// Moves one step of a relay: in = bytes taken from the source, out = bytes given to the
// player. A step returns > 0 bytes moved, 0 when the source ended, -1 when it would block,
// -2 on a failure (errno says which).
struct relay_ops {
    ssize_t (*take)(int from, void* ctx, size_t count);
    ssize_t (*give)(int to, void* ctx, size_t count);
};

ssize_t step_result(ssize_t n) {
    if (n >= 0) return n;
    return would_block() ? -1 : -2;
}

// The spliced path: source socket -> pipe -> player socket.
ssize_t splice_take(int from, void* ctx, size_t count) {
    auto* p = static_cast<fd_pair*>(ctx);
    return step_result(splice(from, nullptr, p->write_end(), nullptr, count,
                              SPLICE_F_MOVE | SPLICE_F_NONBLOCK | SPLICE_F_MORE));
}
ssize_t splice_give(int to, void* ctx, size_t count) {
    auto* p = static_cast<fd_pair*>(ctx);
    return step_result(splice(p->read_end(), nullptr, to, nullptr, count,
                              SPLICE_F_MOVE | SPLICE_F_NONBLOCK | SPLICE_F_MORE));
}

// The copying path, for when the kernel cannot splice: through one 64 KiB buffer.
struct copy_buffer {
    std::array<char, kCopyChunk> bytes;
    size_t start = 0, end = 0;
};
ssize_t copy_take(int from, void* ctx, size_t count) {
    auto* b = static_cast<copy_buffer*>(ctx);
    if (b->end == b->bytes.size()) {  // room again at the front: the rest moves there
        std::memmove(b->bytes.data(), b->bytes.data() + b->start, b->end - b->start);
        b->end -= b->start;
        b->start = 0;
    }
    count = std::min(count, b->bytes.size() - b->end);
    ssize_t n = step_result(recv(from, b->bytes.data() + b->end, count, MSG_DONTWAIT));
    if (n > 0) b->end += static_cast<size_t>(n);
    return n;
}
ssize_t copy_give(int to, void* ctx, size_t count) {
    auto* b = static_cast<copy_buffer*>(ctx);
    count = std::min(count, b->end - b->start);
    ssize_t n = step_result(
        send(to, b->bytes.data() + b->start, count, MSG_DONTWAIT | MSG_NOSIGNAL));
    if (n > 0) b->start += static_cast<size_t>(n);
    return n;
}

// Moves count bytes from `from` to `to` through ctx (holding at most capacity at once).
// Returns true when all arrived; false when the source ended or failed, the player failed,
// either stalled for kRelayStallLimit, or the daemon stops.
bool move_bytes(const relay_ops& ops, void* ctx, size_t capacity, int from, int to,
                long long count) {
    long long held = 0;
    net_deadline give_up = net_clock::now() + kRelayStallLimit;
    while (count > 0 || held > 0) {
        bool progress = false;
        if (count > 0 && held < static_cast<long long>(capacity)) {
            size_t want = static_cast<size_t>(std::min<long long>(count, capacity - held));
            ssize_t n = ops.take(from, ctx, want);
            if (n == 0 || n == -2) return false;
            if (n > 0) count -= n, held += n, progress = true;
        }
        if (held > 0) {
            ssize_t n = ops.give(to, ctx, static_cast<size_t>(held));
            if (n == 0 || n == -2) return false;
            if (n > 0) held -= n, progress = true;
        }
        if (progress) {
            give_up = net_clock::now() + kRelayStallLimit;
        } else if (!wait_either(from, count > 0 && held < static_cast<long long>(capacity), to,
                                held > 0, give_up)) {
            return false;
        }
    }
    return true;
}

bool relay_body(int from, int to, long long count) {
    nonblocking in(from), out(to);
    fd_pair pipe;
    if (pipe.ok()) {
        int size = fcntl(pipe.write_end(), F_SETPIPE_SZ, kPipeSize);
        if (size <= 0) size = 64 * 1024;
        return move_bytes({splice_take, splice_give}, &pipe, static_cast<size_t>(size), from,
                          to, count);
    }
    copy_buffer buffer;
    return move_bytes({copy_take, copy_give}, &buffer, buffer.bytes.size(), from, to, count);
}

// Body bytes the upstream connection already holds beyond what read_request handed out.
bool relay_held(net_conn* upstream, int player, long long* remaining) {
    std::array<char, kCopyChunk> chunk;
    while (*remaining > 0 && !upstream->in.empty()) {
        int want = static_cast<int>(
            std::min<long long>({*remaining, static_cast<long long>(upstream->in.size()),
                                 static_cast<long long>(chunk.size())}));
        int n = read_body(upstream, chunk.data(), want);
        if (n <= 0) return false;
        if (socket_write(player, chunk.data(), n) != n) return false;
        *remaining -= n;
    }
    return true;
}

}  // namespace

int proxy_relay_response(int upstream, int player) {
    net_conn up;
    conn_open(&up, upstream, 0);
    net_message response;
    net_message_clear(&response);
    int n = read_request(&up, &response);
    if (n <= 0 || response.content_length <= 0) return 0;  // nothing to relay
    int early = n - response.header_len;
    long long remaining = static_cast<long long>(response.content_length) - early;
    // The header block and the body bytes that came with it leave in one write.
    std::array<char, kTextSize> first;
    std::memcpy(first.data(), response.head, static_cast<size_t>(response.header_len));
    std::memcpy(first.data() + response.header_len, response.body, static_cast<size_t>(early));
    if (socket_write(player, first.data(), n) != n) return -1;
    if (remaining < 0) return -1;  // more body than announced: the player's view is wrong
    if (!relay_held(&up, player, &remaining)) return -1;
    if (remaining > 0 && !relay_body(upstream, player, remaining)) {
        log_tagged(zor_log::kRed, "proxy: relay to socket %d cut short\n", player);
        return -1;
    }
    return 0;
}
