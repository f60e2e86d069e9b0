// Socket helpers shared by every service: listening sockets, outgoing connections and
// counted reads and writes. Every wait here has a deadline and also ends when the daemon
// stops (the stop pipe of main/daemon.h turns readable): a read or write cut short by the
// stop fails, it is not retried.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

using net_clock = std::chrono::steady_clock;
using net_deadline = net_clock::time_point;

// How long a write may make no progress before it is given up.
inline constexpr std::chrono::seconds kWriteStallLimit{10};
// Listen backlog: connections the kernel queues while the loop serves another.
inline constexpr int kListenBacklog = 16;

// Opens a listening IPv4 TCP socket on 0.0.0.0:port (SO_REUSEADDR, backlog kListenBacklog).
// Returns the socket, or the negative result of the step that failed (socket, bind, listen).
int make_socket_in(uint16_t port);

// Connects an IPv4 stream socket to addr (network byte order) and port (host order).
// Returns the connected socket, or -1; a socket whose connect failed is closed.
// A timeout_seconds > 0 bounds the connect and becomes the socket's read/write time-out.
int connect_to(uint32_t addr, uint16_t port, int timeout_seconds = 0);

// Waits until sock is readable (or writable) or the deadline passes. Returns 1 when it is,
// 0 at the deadline, -1 when the daemon is stopping or the wait failed.
int wait_readable(int sock, net_deadline deadline);
int wait_writable(int sock, net_deadline deadline);

// Reads until count bytes are in, the peer ends the stream, an error, or the deadline.
// Returns the bytes read if >= 1, else the last read's result (0 end of stream, < 0 error,
// deadline or stop). A null buffer returns 0 without reading.
int socket_read(int sock, void* buf, int count,
                net_deadline deadline = net_clock::now() + std::chrono::seconds(10));

// Writes until count bytes are sent, a write fails, kWriteStallLimit passes without progress
// or the daemon stops. Returns the bytes sent; callers compare it with count. A null buffer
// returns 0. Never raises SIGPIPE.
int socket_write(int sock, const void* buf, int count);

// Gives a connected socket receive and send time-outs, a backstop for code that reads or
// writes it directly.
void socket_set_timeouts(int sock, int seconds);
