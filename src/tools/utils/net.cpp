#include "tools/utils/net.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "main/daemon.h"
#include "tools/utils/log.h"

namespace {

// Milliseconds left until deadline, for poll: never negative, never beyond a day. Rounded up,
// so a poll that times out has reached the deadline rather than stopped just short of it.
int ms_until(net_deadline deadline) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - net_clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, 86400000));
}

// Waits for events on sock, or for the stop. 1 ready, 0 deadline, -1 stop or failure.
int wait_for(int sock, short events, net_deadline deadline) {
    if (sock < 0) return -1;
    for (;;) {
        pollfd fds[2] = {{sock, events, 0}, {get_stop_fd(), POLLIN, 0}};
        if (get_stop_flag() == 1) return -1;
        int n = poll(fds, 2, ms_until(deadline));
        if (n < 0 && errno == EINTR) continue;  // the stop, if it was one, is seen above
        if (n < 0 || fds[1].revents != 0) return -1;
        if (n == 0 && net_clock::now() >= deadline) return 0;
        if (n == 0) continue;  // woke early: the caller is promised the whole wait
        return 1;  // ready, or an error/hang-up that the next read or write reports
    }
}

}  // namespace

int make_socket_in(uint16_t port) {
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock < 0) {
        LOG_ERROR_BLANK("make_socket_in", "make_socket_in: socket(%d)=%d\n", port, sock);
        return sock;
    }
    int one = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));

    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(port);
    int rc = bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    if (rc < 0) {
        LOG_ERROR_BLANK("make_socket_in", "bind fail(%d)=%d\n", sock, rc);
        close(sock);  // nobody else would ever close it
        return rc;
    }
    rc = listen(sock, kListenBacklog);
    if (rc < 0) {
        LOG_ERROR_BLANK("make_socket_in", "listen fail(%d)=%d\n", sock, rc);
        close(sock);
        return rc;
    }
    return sock;
}

int connect_to(uint32_t addr, uint16_t port, int timeout_seconds) {
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock < 0) return -1;
    // On Linux the send time-out also bounds connect itself.
    if (timeout_seconds > 0) socket_set_timeouts(sock, timeout_seconds);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = addr;
    peer.sin_port = htons(port);
    if (connect(sock, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) < 0) {
        close(sock);
        return -1;
    }
    return sock;
}

int wait_readable(int sock, net_deadline deadline) {
    return wait_for(sock, POLLIN, deadline);
}

int wait_writable(int sock, net_deadline deadline) {
    return wait_for(sock, POLLOUT, deadline);
}

int socket_read(int sock, void* buf, int count, net_deadline deadline) {
    if (buf == nullptr) return 0;
    auto* bytes = static_cast<char*>(buf);
    int total = 0;
    int missing = count < 0 ? 0 : count;
    ssize_t n;
    for (;;) {
        // A complete read ends through the same line as an ended stream, without a read.
        if (missing == 0) {
            n = 0;
        } else if (wait_readable(sock, deadline) != 1) {
            n = -1;
        } else {
            n = recv(sock, bytes + total, static_cast<size_t>(missing), MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) continue;
        }
        if (n < 0) {
            log_tagged(zor_log::kRed, "read from sockfd : failed(%d) sockfd(%d)\n",
                       static_cast<int>(n), sock);
            break;
        }
        if (n == 0) {
            log_tagged(zor_log::kGreen, "read from sockfd : nothing left to read(%d)  sockfd(%d)\n",
                       0, sock);
            break;
        }
        total += static_cast<int>(n);
        missing -= static_cast<int>(n);
    }
    return total >= 1 ? total : static_cast<int>(n);
}

int socket_write(int sock, const void* buf, int count) {
    if (buf == nullptr) return 0;
    const auto* bytes = static_cast<const char*>(buf);
    int sent = 0;
    int remaining = count;
    for (;;) {
        ssize_t n = send(sock, bytes + sent, remaining < 0 ? 0 : static_cast<size_t>(remaining),
                         MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK)  // a pipe or file: a plain write
            n = write(sock, bytes + sent, remaining < 0 ? 0 : static_cast<size_t>(remaining));
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            if (wait_writable(sock, net_clock::now() + kWriteStallLimit) == 1) continue;
        }
        if (n < 0) {
            log_tagged(zor_log::kRed, "write to sockfd failed(%d)\n", static_cast<int>(n));
            return sent;
        }
        if (n == 0) {
            log_tagged(zor_log::kGreen, "write to sockfd done but suspicious(size:%d)\n", count);
            return sent;
        }
        sent += static_cast<int>(n);
        remaining -= static_cast<int>(n);
        if (remaining == 0) {
            log_tagged(zor_log::kGreen, "write to sockfd done(size:%d)\n", count);
            return sent;
        }
        if (remaining < 0) {
            log_tagged(zor_log::kRed, "socket_write, something wrong in size calculation");
            return sent;
        }
    }
}

void socket_set_timeouts(int sock, int seconds) {
    timeval tv{};
    tv.tv_sec = seconds;
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
}
