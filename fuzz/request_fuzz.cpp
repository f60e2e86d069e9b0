// Request reading as both dispatchers do it: header blocks, bodies (read whole, as ANNOUNCE
// and SET_PARAMETER do, or left to be dropped) and pipelined requests, from a socket pair
// whose other end has sent the input and closed.
#include <cstddef>
#include <cstdint>

#include "airtunes/audio/airtunes_rtsp.h"
#include "fuzz_connection.h"

namespace {
// More than a connection holds, little enough for the socket pair to buffer unread.
constexpr size_t kInputLimit = 96 * 1024;
constexpr int kMaxRequests = 16;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kInputLimit) return 0;
    fuzz_connection peer(data, size);
    if (!peer.ok()) return 0;
    static net_exchange x;
    net_conn& conn = peer.conn;
    for (int i = 0; i < kMaxRequests; ++i) {
        net_exchange_clear(&x);
        int n = read_request(&conn, &x.request);
        if (n < 1) break;
        if (n >= kTextSize || x.request.header_len > n) __builtin_trap();
        x.request.head[n] = '\0';
        rtsp_get_cseq(x.request.head);
        // Every other request has its body read whole; the rest leave it to be dropped.
        body_buffer body;
        if (i % 2 == 0 && airtunes_read_body(&conn, n, &x, kAnnounceBodyCap, &body) == kBodyOk &&
            body.data()[body.size()] != '\0')
            __builtin_trap();
        if (!conn_finish_request(&conn)) break;
    }
    return 0;
}
