#include "tools/utils/conn.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "tools/utils/log.h"
#include "tools/utils/net.h"

namespace {

constexpr std::string_view kEndOfHeaders = "\r\n\r\n";
constexpr std::string_view kContentLength = "Content-Length:";
constexpr size_t kIdleBufferCapacity = 8192;

// Where the header block at the start of conn->in stands.
struct header_scan {
    size_t header_len = 0;   // with its "\r\n\r\n"; 0 while it has not ended
    bool malformed = false;  // a NUL byte before its end
    bool overlong = false;   // kHeaderLimit bytes in and still no end
};

// The end of the header block is found by a byte search over what was received, so a zero
// byte cannot hide it; a zero byte inside the block makes the request malformed.
header_scan scan_header(const std::vector<char>& in) {
    header_scan s;
    std::string_view window(in.data(), std::min(in.size(), static_cast<size_t>(kHeaderLimit)));
    size_t end = window.find(kEndOfHeaders);
    size_t block = end == std::string_view::npos ? window.size() : end + kEndOfHeaders.size();
    s.malformed = window.substr(0, block).find('\0') != std::string_view::npos;
    if (end != std::string_view::npos)
        s.header_len = block;
    else
        s.overlong = window.size() >= static_cast<size_t>(kHeaderLimit);
    return s;
}

// Decimal value after "Content-Length:": leading blanks skipped, digits up to the first
// non-digit, 0 when there are none. Saturates instead of overflowing.
int parse_content_length(std::string_view block) {
    size_t at = block.find(kContentLength);
    if (at == std::string_view::npos) return 0;
    size_t i = at + kContentLength.size();
    while (i < block.size() && (block[i] == ' ' || block[i] == '\t')) ++i;
    long long value = 0;
    for (; i < block.size() && block[i] >= '0' && block[i] <= '9'; ++i) {
        value = value * 10 + (block[i] - '0');
        if (value > 0x7fffffff) return 0x7fffffff;
    }
    return static_cast<int>(value);
}

void log_closed_by_peer(const net_conn* conn, int result) {
    log_tagged(zor_log::kBlue, "Read from sockfd failed(%d) from sockfd(%d)\n", result, conn->sock);
}

// An idle connection gives back what a large request made its buffer grow to.
void drop_front(net_conn* conn, size_t count) {
    conn->in.erase(conn->in.begin(), conn->in.begin() + static_cast<std::ptrdiff_t>(count));
    if (conn->in.empty() && conn->in.capacity() > kIdleBufferCapacity)
        std::vector<char>().swap(conn->in);
}

// Bytes owed to an unread body are dropped first, from what is held.
// Once they are paid, the request is over and the next one's clock starts at its first byte.
void pay_discard(net_conn* conn) {
    if (conn->discard == 0) return;
    size_t n = std::min(conn->in.size(), static_cast<size_t>(conn->discard));
    drop_front(conn, n);
    conn->discard -= static_cast<int>(n);
    if (conn->discard == 0) conn->in_request = false;
}

void start_clock_if_new(net_conn* conn) {
    if (conn->in_request || (conn->in.empty() && conn->discard == 0)) return;
    conn->in_request = true;
    conn->deadline = net_clock::now() + kRequestTimeLimit;
}

// One non-blocking read into conn->in. Returns bytes read, 0 at end of stream, -1 when
// nothing is waiting, -2 on an error.
int receive_once(net_conn* conn) {
    size_t room = kConnBufferLimit - conn->in.size();
    if (room == 0) return -1;
    std::array<char, 16384> chunk;
    ssize_t n = recv(conn->sock, chunk.data(), std::min(room, chunk.size()), MSG_DONTWAIT);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? -1 : -2;
    if (n == 0) {
        conn->peer_closed = true;
        return 0;
    }
    conn->in.insert(conn->in.end(), chunk.data(), chunk.data() + n);
    return static_cast<int>(n);
}

bool deadline_passed(const net_conn* conn) {
    return conn->in_request && net_clock::now() >= conn->deadline;
}

void log_deadline(const net_conn* conn) {
    log_tagged(zor_log::kRed, "request on socket %d not complete within %d s, closing\n",
               conn->sock, static_cast<int>(kRequestTimeLimit.count()));
}

// Waits until conn holds a ready request, the peer closes, or the request fails.
conn_state wait_ready(net_conn* conn) {
    if (!conn->in_request) {  // an outgoing socket: its reply's clock starts now
        conn->in_request = true;
        conn->deadline = net_clock::now() + kRequestTimeLimit;
    }
    for (;;) {
        conn_state s = conn_check(conn);
        if (s != kConnWaiting) return s;
        int waited = wait_readable(conn->sock, conn->deadline);
        if (waited == 0) {
            log_deadline(conn);
            return kConnBroken;
        }
        if (waited < 0) return kConnBroken;  // stopping, or the socket failed
        s = conn_receive(conn);
        if (s != kConnWaiting) return s;
    }
}

}  // namespace

void conn_open(net_conn* conn, int sock, uint32_t peer_addr) {
    *conn = net_conn{};
    conn->sock = sock;
    conn->peer_addr = peer_addr;
}

conn_state conn_check(net_conn* conn) {
    pay_discard(conn);
    if (conn->discard > 0) {
        if (deadline_passed(conn)) {
            log_deadline(conn);
            return kConnBroken;
        }
        return conn->peer_closed ? kConnReady : kConnWaiting;
    }
    start_clock_if_new(conn);
    header_scan s = scan_header(conn->in);
    if (s.malformed) {
        log_tagged(zor_log::kRed,
                   "malformed request (NUL byte in its header block) on socket %d, "
                   "closing\n",
                   conn->sock);
        return kConnBroken;
    }
    // The body is left to the handler, which reads it within the same deadline.
    if (conn->peer_closed || s.overlong || s.header_len > 0) return kConnReady;
    if (deadline_passed(conn)) {
        log_deadline(conn);
        return kConnBroken;
    }
    return kConnWaiting;
}

conn_state conn_receive(net_conn* conn) {
    int n = 0;
    do {
        n = receive_once(conn);
        pay_discard(conn);
    } while (n > 0);
    // A failed socket will not deliver more: what it did deliver is served, then it ends.
    if (n == -2) conn->peer_closed = true;
    return conn_check(conn);
}

int read_request(net_conn* conn, net_message* msg) {
    msg->header_len = 0;
    msg->content_length = 0;
    if (wait_ready(conn) == kConnBroken) return -1;
    if (conn->in.empty()) {
        log_closed_by_peer(conn, 0);
        return 0;
    }
    header_scan s = scan_header(conn->in);
    size_t total;
    if (s.header_len > 0) {
        std::string_view block(conn->in.data(), s.header_len);
        msg->header_len = static_cast<int>(s.header_len);
        msg->content_length = parse_content_length(block);
        size_t with_it =
            std::min({conn->in.size() - s.header_len, static_cast<size_t>(msg->content_length),
                      static_cast<size_t>(kHeaderLimit) - s.header_len});
        std::memcpy(msg->body, conn->in.data() + s.header_len, with_it);
        total = s.header_len + with_it;
        conn->body_left = msg->content_length - static_cast<int>(with_it);
    } else {
        // The block never ended: the peer closed mid-way, or it outgrew the reading window.
        // The dispatcher still sees the request line; the rest of the block cannot be told
        // from a next request, so the connection ends after this one.
        log_closed_by_peer(conn, 0);
        total = std::min(conn->in.size(), static_cast<size_t>(kHeaderLimit));
        msg->header_len = static_cast<int>(total);
        conn->body_left = 0;
        conn->close_after = true;
    }
    std::memcpy(msg->head, conn->in.data(), static_cast<size_t>(msg->header_len));
    drop_front(conn, total);
    if (s.header_len == 0) conn->in.clear();
    return static_cast<int>(total);
}

int read_body(net_conn* conn, void* buf, int count) {
    if (buf == nullptr) return 0;
    count = std::clamp(count, 0, conn->body_left);
    auto* bytes = static_cast<char*>(buf);
    int held = static_cast<int>(std::min(conn->in.size(), static_cast<size_t>(count)));
    std::memcpy(bytes, conn->in.data(), static_cast<size_t>(held));
    drop_front(conn, static_cast<size_t>(held));
    conn->body_left -= held;
    if (held == count) {
        if (held > 0) return held;
        log_tagged(zor_log::kGreen, "read from sockfd : nothing left to read(%d)  sockfd(%d)\n", 0,
                   conn->sock);
        return 0;
    }
    int n = socket_read(conn->sock, bytes + held, count - held, conn->deadline);
    if (n > 0) {
        conn->body_left -= n;
        return held + n;
    }
    return held > 0 ? held : n;
}

bool conn_finish_request(net_conn* conn) {
    if (conn->close_after) return false;
    if (conn->body_left > 0) {
        if (conn->body_left > kBodyDiscardLimit) {
            log_tagged(zor_log::kRed, "unread body of %d bytes on socket %d, closing\n",
                       conn->body_left, conn->sock);
            return false;
        }
        conn->discard = conn->body_left;
        conn->body_left = 0;
        pay_discard(conn);
    }
    if (conn->discard == 0) {
        // The next request's clock starts at its first byte, which may already be here.
        conn->in_request = false;
        start_clock_if_new(conn);
    }
    return true;
}

bool body_buffer::allocate(int size) {
    bytes_.reset();
    size_ = 0;
    if (size < 0) return false;
    bytes_.reset(static_cast<char*>(std::calloc(static_cast<size_t>(size) + 1, 1)));
    if (!bytes_) return false;
    size_ = size;
    return true;
}

int read_body_whole(net_conn* conn, const net_message* request, int read_count, int cap,
                    body_buffer* out) {
    int length = request->content_length;
    if (length < 0 || length > cap) return kBodyTooLarge;
    if (!out->allocate(length)) return kBodyNoMemory;
    int already = std::clamp(read_count - request->header_len, 0, length);
    already = std::min(already, static_cast<int>(sizeof(request->body)));
    std::memcpy(out->data(), request->body, static_cast<size_t>(already));
    int missing = length - already;
    if (missing > 0 && read_body(conn, out->data() + already, missing) != missing)
        return kBodyShortRead;
    return kBodyOk;
}
