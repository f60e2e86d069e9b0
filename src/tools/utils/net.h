// Socket helpers shared by every service: listening sockets, outgoing connections and
// counted reads and writes on blocking sockets.
#pragma once

#include <cstddef>
#include <cstdint>

// Opens a listening IPv4 TCP socket on 0.0.0.0:port (SO_REUSEADDR, backlog 1).
// Returns the socket, or the negative result of the step that failed (socket, bind, listen).
int make_socket_in(uint16_t port);

// Connects an IPv4 stream socket to addr (network byte order) and port (host order).
// Returns the connected socket, or -1; a socket whose connect failed is closed.
// A timeout_seconds > 0 bounds the connect and becomes the socket's read/write time-out.
int connect_to(uint32_t addr, uint16_t port, int timeout_seconds = 0);

// Reads until count bytes are in, the peer ends the stream, or an error.
// Returns the bytes read if >= 1, else the last read's result (0 end of stream, < 0 error).
// A null buffer returns 0 without reading. After a failed read, errno is that read's.
int socket_read(int sock, void* buf, int count);

// Writes until count bytes are sent or a write fails. Returns the bytes sent; callers
// compare it with count. A null buffer returns 0.
int socket_write(int sock, const void* buf, int count);

// Gives a connected socket receive and send time-outs, so a peer that stalls mid-request
// or stops reading cannot hold a thread forever.
void socket_set_timeouts(int sock, int seconds);
