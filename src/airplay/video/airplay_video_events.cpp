// Events to the sender: "POST /event" requests on the reverse connection it opened. They are
// written from the main loop, which must never wait on a sender that stopped reading (a phone
// that sleeps or left the network), and never leave half an event followed by another.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "airplay/airplay_replies.h"
#include "airplay/video/airplay_video.h"
#include "tools/utils/log.h"

namespace {

// Bytes of events that wait for a reverse connection that does not read: a dozen events.
constexpr size_t kOutboxLimit = 8192;

// The reverse connection and what it has not taken yet. The connection is known by its
// number and its socket's inode, taken when it became the reverse connection: a later
// connection that got the number has another inode and is never written to, whether or
// not the connection loop forgot event_socket when it closed the first. Set by the AirPlay
// thread, written from by the main loop.
struct event_outbox {
    std::mutex lock;
    int sock = 0;
    ino_t inode = 0;
    std::array<char, kOutboxLimit> bytes{};
    size_t used = 0;
};

event_outbox outbox;

// A descriptor of our own for the reverse connection: the AirPlay loop may close its number
// at any moment, and another connection may then get it. The loop forgets event_socket under
// event_lock before it closes, so a duplicate taken under that lock while event_socket still
// names the number is this very connection. Closes on destruction.
struct reverse_handle {
    int sock = 0;  // event_socket's number
    int own = -1;
    ino_t inode = 0;
    explicit reverse_handle(media_session* session) {
        {
            std::lock_guard<std::mutex> hold(session->event_lock);
            sock = session->event_socket.load();
            if (sock == 0) return;
            own = dup(sock);
        }
        struct stat st {};
        if (own >= 0 && fstat(own, &st) != 0) {
            close(own);
            own = -1;
        }
        inode = st.st_ino;
    }
    ~reverse_handle() {
        if (own >= 0) close(own);
    }
    reverse_handle(const reverse_handle&) = delete;
    reverse_handle& operator=(const reverse_handle&) = delete;
    bool ok() const { return own >= 0; }
};

// Caller holds outbox.lock. Whether h is the connection that asked for events.
bool is_reverse(const reverse_handle& h) {
    return outbox.sock == h.sock && outbox.inode == h.inode;
}

// event_socket names a connection that has gone (its number now belongs to another one):
// forget it, and write nothing.
void forget_gone(media_session* session, const reverse_handle& h) {
    int expected = h.sock;
    session->event_socket.compare_exchange_strong(expected, 0);
}

// Ends the reverse connection: the sender learns at once (a reset, not a stream that stops
// halfway through an event), the AirPlay loop sees it and closes the connection.
void drop(media_session* session, const reverse_handle& h) {
    {
        std::lock_guard<std::mutex> hold(outbox.lock);
        outbox.used = 0;
    }
    int expected = h.sock;
    session->event_socket.compare_exchange_strong(expected, 0);
    linger reset{1, 0};
    setsockopt(h.own, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    shutdown(h.own, SHUT_RDWR);
    log_tagged(zor_log::kRed, "send_playback_event_xml unable to send out(%d)\n", h.sock);
}

// Writes what is queued as far as the socket takes it now. Returns false when the socket
// failed (the connection is then to be dropped).
bool write_queued(const reverse_handle& h) {
    std::array<char, kOutboxLimit> chunk;
    size_t count;
    {
        std::lock_guard<std::mutex> hold(outbox.lock);
        if (!is_reverse(h)) return true;
        count = outbox.used;
        std::memcpy(chunk.data(), outbox.bytes.data(), count);
    }
    if (count == 0) return true;
    ssize_t n = send(h.own, chunk.data(), count, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    std::lock_guard<std::mutex> hold(outbox.lock);
    if (is_reverse(h)) {
        size_t sent = static_cast<size_t>(n);
        std::memmove(outbox.bytes.data(), outbox.bytes.data() + sent, outbox.used - sent);
        outbox.used -= sent;
    }
    return true;
}

const char* event_category() {
    uint32_t mask = get_activity_mask();
    if (mask & kActivityPhoto) return "photo";
    if (mask & kActivityVideo) return "video";
    log_plain("WARNING : no current media type, force video");
    return "video";
}

// The whole "POST /event" request; returns its length.
int compose_event(const char* state, char* request, size_t size) {
    char body[kTextSize] = {};
    int body_len = std::snprintf(body, sizeof(body),
                                 PLIST_HEAD
                                 "<dict>\r\n"
                                 "<key>category</key>\r\n"
                                 "<string>%s</string>\r\n"
                                 "<key>sessionID</key>\r\n"
                                 "<integer>1</integer>\r\n"
                                 "<key>state</key>\r\n"
                                 "<string>%.64s</string>\r\n"
                                 "</dict>\r\n"
                                 "</plist>\r\n"
                                 "\r\n",
                                 event_category(), state);
    return std::snprintf(request, size,
                         "POST /event HTTP/1.1\r\n"
                         "Content-Type: application/x-apple-plist\r\n"
                         "Content-Length: %d\r\n"
                         "X-Apple-Session-ID: 00000000-0000-0000-0000-000000000000\r\n"
                         "\r\n%s",
                         body_len, body);
}

}  // namespace

int send_playback_event_xml(media_session* session, const char* state) {
    reverse_handle h(session);
    if (!h.ok()) return -1;
    char request[kTextSize] = {};
    int length = compose_event(state, request, sizeof(request));
    bool queued = false;
    {
        std::lock_guard<std::mutex> hold(outbox.lock);
        if (!is_reverse(h)) {
            forget_gone(session, h);
            return -1;
        }
        if (outbox.used + static_cast<size_t>(length) <= outbox.bytes.size()) {
            std::memcpy(outbox.bytes.data() + outbox.used, request, static_cast<size_t>(length));
            outbox.used += static_cast<size_t>(length);
            queued = true;
        }
    }
    if (!queued || !write_queued(h)) {
        drop(session, h);
        return -1;
    }
    return length;
}

void airplay_events_flush(media_session* session) {
    reverse_handle h(session);
    if (h.ok() && !write_queued(h)) drop(session, h);
}

bool airplay_events_connected(media_session* session) {
    reverse_handle h(session);
    if (!h.ok()) return false;
    std::lock_guard<std::mutex> hold(outbox.lock);
    if (is_reverse(h)) return true;
    forget_gone(session, h);
    return false;
}

void airplay_events_attach(media_session* session, int sock) {
    struct stat st {};
    if (fstat(sock, &st) != 0) return;
    {
        std::lock_guard<std::mutex> hold(outbox.lock);
        outbox.sock = sock;
        outbox.inode = st.st_ino;
        outbox.used = 0;
    }
    session->event_socket.store(sock);
}
