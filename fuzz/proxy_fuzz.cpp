// The proxy's requests from the player: read as its connection loop reads them (a socket
// pair whose other end sent the input and closed), turned into the media server's request
// (learning and using the remembered target), and add_header_line with the request's body
// bytes as the line.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz_connection.h"
#include "proxy/proxy_request.h"

namespace {
constexpr size_t kInputLimit = 16 * 1024;
constexpr int kMaxRequests = 4;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kInputLimit) return 0;
    fuzz_connection peer(data, size);
    if (!peer.ok()) return 0;
    static net_message request;
    static upstream_request upstream;
    static char block[kTextSize];
    net_conn& conn = peer.conn;
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
    return 0;
}
