// The proxy's requests from the player: read as its connection loop reads them (a socket
// pair whose other end sent the input and closed), turned into the media server's request
// (learning and using the remembered target), and add_header_line with the request's body
// bytes as the line.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "proxy/proxy_request.h"
#include "tools/utils/conn.h"

namespace {
constexpr size_t kInputLimit = 16 * 1024;
constexpr int kMaxRequests = 4;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fds[2];
    if (size > kInputLimit || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return 0;
    if (size > 0 && send(fds[1], data, size, MSG_DONTWAIT) < 0) __builtin_trap();
    shutdown(fds[1], SHUT_WR);
    static net_message request;
    static upstream_request upstream;
    static char block[kTextSize];
    net_conn conn;
    conn_open(&conn, fds[0], 0);
    for (int i = 0; i < kMaxRequests; ++i) {
        net_message_clear(&request);
        int n = read_request(&conn, &request);
        if (n < 1) break;
        if (proxy_build_upstream(request, n, &upstream) &&
            (upstream.length < 0 || static_cast<size_t>(upstream.length) > kUpstreamLimit))
            __builtin_trap();
        std::memcpy(block, request.head, sizeof(block));
        block[kTextSize - 1] = '\0';
        add_header_line(block, request.body);
        if (strnlen(block, kTextSize) >= kTextSize) __builtin_trap();
        if (!conn_finish_request(&conn)) break;
    }
    close(fds[0]);
    close(fds[1]);
    return 0;
}
