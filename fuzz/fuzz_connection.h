// A connection whose peer has sent the fuzzer's bytes and closed its side, as a real peer
// would: the readers under test see the bytes arrive through a socket, then the end of the
// stream. The input must fit the socket pair's buffer (the targets cap it).
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "tools/utils/conn.h"

struct fuzz_connection {
    int fds[2] = {-1, -1};
    net_conn conn;

    fuzz_connection(const uint8_t* data, size_t size) {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
        if (size > 0 && send(fds[1], data, size, MSG_DONTWAIT) < 0) __builtin_trap();
        shutdown(fds[1], SHUT_WR);
        conn_open(&conn, fds[0], 0);
    }
    ~fuzz_connection() {
        for (int fd : fds)
            if (fd >= 0) close(fd);
    }
    fuzz_connection(const fuzz_connection&) = delete;
    fuzz_connection& operator=(const fuzz_connection&) = delete;
    bool ok() const { return fds[0] >= 0; }
};
