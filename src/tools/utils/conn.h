// A client connection as its loop keeps it between requests, and the reading of requests and
// bodies from it. A request has kRequestTimeLimit from its first byte for its header block
// and whatever body its handler reads, however the bytes are paced; bytes that arrive beyond
// a request are kept and served as the connection's next request.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "tools/utils/net.h"
#include "tools/utils/request.h"

// Time a request has, from its first byte, for its header block and the body its handler reads.
inline constexpr std::chrono::seconds kRequestTimeLimit{10};
// Largest header block: the reading buffer keeps a closing zero byte.
inline constexpr int kHeaderLimit = kTextSize - 1;
// The most of an unread body that is read and dropped after its handler returns; a longer
// unread body closes the connection.
inline constexpr int kBodyDiscardLimit = 64 * 1024;

// Owned by its connection loop (or by whoever made it around an outgoing socket); used by
// one thread at a time.
struct net_conn {
    int sock = -1;
    uint32_t peer_addr = 0;    // IPv4 of the peer, network byte order (0 when unknown)
    net_deadline deadline{};   // of the request in progress; valid while in_request
    bool in_request = false;   // a request's first byte has arrived and it is not done yet
    bool peer_closed = false;  // the peer ended its stream: no more bytes will come
    bool close_after = false;  // close once the request in hand has been answered
    int body_left = 0;         // body bytes of the request being served not yet read
    int discard = 0;           // unread body bytes still to be dropped as they arrive
    std::vector<char> in;      // received bytes not yet handed out (at most kConnBufferLimit)
};

// Received bytes a connection may hold: a header block and what came after it (body bytes,
// pipelined requests). The rest waits in the socket until these are used.
inline constexpr size_t kConnBufferLimit = kHeaderLimit + kBodyDiscardLimit;

// Makes conn a fresh connection on sock.
void conn_open(net_conn* conn, int sock, uint32_t peer_addr);

// What conn_receive found.
enum conn_state {
    kConnWaiting,  // no complete request yet (or none begun)
    kConnReady,    // a request can be served (also: the peer closed, so the read will say so)
    kConnBroken,   // the connection is to be closed now; one line was logged
};

// Takes in what has arrived without waiting (the loop calls it when the socket is readable):
// drops what is owed to an unread body, keeps the rest. Says whether a request is ready: its
// header block has ended, can no longer end within kHeaderLimit, or the peer has closed.
// A NUL byte in a header block or a passed deadline breaks the connection.
conn_state conn_receive(net_conn* conn);

// Whether the bytes already held make a ready request (pipelining), without reading.
conn_state conn_check(net_conn* conn);

// Reads one request into msg: head (the header block), header_len, content_length, and at the
// start of body the body bytes received so far, never more than Content-Length nor than the
// 5119-byte reading window holds. Waits (until the deadline, or the stop) only when conn does
// not hold a ready request yet. Returns the bytes in msg (>= 1), 0 when the peer closed
// before a byte, < 0 on a read error, a malformed header block, the deadline or the stop.
// Does not clear head or body itself.
int read_request(net_conn* conn, net_message* msg);

// Reads count more body bytes of the request being served: first those already received,
// then from the socket until the request's deadline; never past its Content-Length.
// Returns the bytes read if >= 1, else 0 at end of stream or < 0 on error, deadline or stop.
int read_body(net_conn* conn, void* buf, int count);

// After the handler of a request returned (and kept the connection): the body it left unread
// is dropped (up to kBodyDiscardLimit, within the request's deadline), and the next request's
// clock starts at its first byte. Returns false when the connection is to be closed.
bool conn_finish_request(net_conn* conn);

// A request body of exactly its Content-Length plus a closing NUL, so that it can be scanned
// as text. Allocation never throws: a failed one leaves the buffer empty.
class body_buffer {
   public:
    bool allocate(int size);
    char* data() { return bytes_.get(); }
    int size() const { return size_; }

   private:
    struct release {
        void operator()(char* p) const { std::free(p); }
    };
    std::unique_ptr<char, release> bytes_;
    int size_ = 0;
};

// Results of read_body_whole.
inline constexpr int kBodyOk = 0;
inline constexpr int kBodyTooLarge = -1;   // content_length above cap or negative: nothing read
inline constexpr int kBodyNoMemory = -2;   // the buffer could not be allocated
inline constexpr int kBodyShortRead = -3;  // the peer, an error, the deadline or the stop cut it

// Reads the whole body of the request just read into out (read_count: read_request's
// result): the bytes that came with the header block, then the rest with read_body.
int read_body_whole(net_conn* conn, const net_message* request, int read_count, int cap,
                    body_buffer* out);
