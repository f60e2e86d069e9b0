#include "main/connection_loops.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "airplay/airplay.h"
#include "airtunes/airtunes.h"
#include "main/daemon.h"
#include "proxy/proxy.h"
#include "tools/utils/conn.h"
#include "tools/utils/log.h"
#include "tools/utils/net.h"
#include "tools/utils/worker_pool.h"

namespace {

constexpr int kMaxClientsPerPort = 32;
constexpr int kProxyWorkers = 8;
constexpr int kMaxClientsPerPeer = 16;
// Descriptors kept free for the FIFOs, files, player connections and UDP sockets the daemon
// still has to open while a flood holds everything else.
constexpr int kReservedDescriptors = 32;
constexpr auto kAcceptBackoff = std::chrono::milliseconds(100);
constexpr auto kRefusalLogInterval = std::chrono::seconds(1);

// What differs between the three loops; the loop itself is shared.
struct loop_config {
    int port;
    int listen_sock;
    int timeout_seconds;
    // Serves one ready request; returns true when the connection is to be closed.
    bool (*serve)(net_conn* conn);
    void (*on_accept_fail)(int listen_sock, int result);
    void (*on_accepted)(int sock);
    void (*before_close)(int sock);
    void (*on_close_fail)(int sock);
    // > 0: each ready request is served on one of at most this many worker threads, for
    // services whose requests may block for long; the connection leaves the select set
    // until its worker hands it back. 0: served on the loop's own thread.
    int workers = 0;
    // Null, or whether a peer (IPv4, network byte order) may connect to this port at all.
    bool (*peer_allowed)(uint32_t peer) = nullptr;
};

void nothing(int) {}
void nothing2(int, int) {}

// The pipe through which workers wake their loop.
struct wake_pipe {
    int fds[2] = {-1, -1};
    wake_pipe() {
        if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) fds[0] = fds[1] = -1;
    }
    ~wake_pipe() {
        for (int fd : fds)
            if (fd >= 0) close(fd);
    }
    wake_pipe(const wake_pipe&) = delete;
    wake_pipe& operator=(const wake_pipe&) = delete;
};

// Connections lent to workers. A worker serves its connection alone, then queues it in
// `done` with whether it is to be closed and writes a byte into the pipe, which is in the
// loop's select set; only the loop closes or serves it again.
struct lending {
    explicit lending(int workers) : pool(workers) {}
    wake_pipe wake;
    std::mutex lock;                              // guards done
    std::vector<std::pair<net_conn*, bool>> done;
    worker_pool pool;  // last: joined before the pipe and the queue go
};

// One loop's connections and its guards against floods.
struct loop_state {
    std::array<net_conn, kMaxClientsPerPort> conns;  // sock < 0: free slot
    std::array<bool, kMaxClientsPerPort> lent{};     // conns[i] is with a worker: hands off
    int descriptor_ceiling = FD_SETSIZE;             // accepted numbers must stay below it
    net_deadline accept_resume{};                    // no accept before this (back-off)
    net_deadline next_refusal_log{};                 // refusals are logged once a second
    std::unique_ptr<lending> lend;  // null without workers; last: workers end before conns
};

size_t slot_of(const loop_state& st, const net_conn* conn) {
    return static_cast<size_t>(conn - st.conns.data());
}

// A flood must not flood the log: one line per interval, whatever the rate.
bool may_log(net_deadline* next) {
    net_deadline now = net_clock::now();
    if (now < *next) return false;
    *next = now + kRefusalLogInterval;
    return true;
}

int descriptor_ceiling() {
    rlimit lim{};
    long limit = getrlimit(RLIMIT_NOFILE, &lim) == 0 ? static_cast<long>(lim.rlim_cur) : FD_SETSIZE;
    return static_cast<int>(std::min<long>(FD_SETSIZE, limit - kReservedDescriptors));
}

// Why a new connection cannot be taken, or null when it can.
const char* refusal(const loop_config& cfg, const loop_state& st, int sock, uint32_t peer) {
    if (cfg.peer_allowed != nullptr && !cfg.peer_allowed(peer)) return "peer not allowed here";
    if (sock >= st.descriptor_ceiling) return "descriptor beyond select's limit or the reserve";
    int total = 0, same_peer = 0;
    for (const net_conn& c : st.conns) {
        if (c.sock < 0) continue;
        ++total;
        same_peer += c.peer_addr == peer;
    }
    if (total >= kMaxClientsPerPort) return "too many connections on this port";
    if (same_peer >= kMaxClientsPerPeer) return "too many connections from this address";
    return nullptr;
}

net_conn* free_slot(loop_state* st) {
    for (net_conn& c : st->conns)
        if (c.sock < 0) return &c;
    return nullptr;
}

// Takes one waiting connection. Returns false when none is left to take now.
bool accept_client(const loop_config& cfg, loop_state* st) {
    sockaddr_in peer{};
    socklen_t len = sizeof(peer);
    int sock = accept4(cfg.listen_sock, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    if (sock < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return false;
        // Out of descriptors (or another failure): back off instead of spinning on it.
        st->accept_resume = net_clock::now() + kAcceptBackoff;
        if (may_log(&st->next_refusal_log)) cfg.on_accept_fail(cfg.listen_sock, sock);
        return false;
    }
    uint32_t addr = peer.sin_addr.s_addr;
    if (const char* why = refusal(cfg, *st, sock, addr)) {
        if (may_log(&st->next_refusal_log)) {
            char text[INET_ADDRSTRLEN] = "?";
            inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text));
            log_tagged(zor_log::kRed, "refused connection %d from %s on port %d: %s\n", sock, text,
                       cfg.port, why);
        }
        close(sock);
        return true;
    }
    socket_set_timeouts(sock, kClientTimeoutSeconds);
    conn_open(free_slot(st), sock, addr);
    cfg.on_accepted(sock);
    return true;
}

// A burst of connections is taken in one pass, so the listen queue never overflows into
// the clients' SYN retransmissions; the listening socket is non-blocking for this.
void accept_waiting(const loop_config& cfg, loop_state* st) {
    for (int i = 0; i < kMaxClientsPerPort && accept_client(cfg, st); ++i) {
    }
}

void close_client(const loop_config& cfg, net_conn* conn) {
    cfg.before_close(conn->sock);
    if (close(conn->sock) == 0)
        conn_open(conn, -1, 0);
    else
        cfg.on_close_fail(conn->sock);
}

// After a request was served: closes the connection, or keeps it. Returns true when the
// next request already waits in its buffer (pipelined).
bool after_serve(const loop_config& cfg, net_conn* conn, bool close) {
    if (!close && conn_finish_request(conn)) {
        conn_state state = conn_check(conn);
        if (state != kConnBroken) return state == kConnReady;
    }
    close_client(cfg, conn);
    return false;
}

void lend_to_worker(const loop_config& cfg, loop_state* st, net_conn* conn) {
    st->lent[slot_of(*st, conn)] = true;
    lending* l = st->lend.get();
    l->pool.submit([l, conn, serve = cfg.serve] {
        bool close_it = serve(conn);
        {
            std::lock_guard<std::mutex> hold(l->lock);
            l->done.emplace_back(conn, close_it);
        }
        char byte = 1;
        if (write(l->wake.fds[1], &byte, 1) < 0) {
            // Full: the loop is woken already and takes every returned connection.
        }
    });
}

// Takes back what the workers have finished. Returns true when a request waits (pipelined).
bool take_back(const loop_config& cfg, loop_state* st) {
    std::array<char, 64> drain;
    while (read(st->lend->wake.fds[0], drain.data(), drain.size()) > 0) {
    }
    std::vector<std::pair<net_conn*, bool>> done;
    {
        std::lock_guard<std::mutex> hold(st->lend->lock);
        done.swap(st->lend->done);
    }
    bool more = false;
    for (auto [conn, close_it] : done) {
        st->lent[slot_of(*st, conn)] = false;
        if (after_serve(cfg, conn, close_it)) more = true;
    }
    return more;
}

// Serves the connection's ready request, if it has one, and closes it when it is done.
// Returns true when the next request already waits in its buffer (pipelined).
bool serve_one(const loop_config& cfg, loop_state* st, net_conn* conn, conn_state state) {
    if (state == kConnWaiting) return false;
    if (state == kConnReady && st->lend != nullptr) {
        lend_to_worker(cfg, st, conn);
        return false;
    }
    if (state == kConnReady) return after_serve(cfg, conn, cfg.serve(conn));
    close_client(cfg, conn);
    return false;
}

// Builds the read set and the time-out of one select.
int prepare(const loop_config& cfg, const loop_state& st, fd_set* set, timeval* timeout) {
    FD_ZERO(set);
    int top = -1;
    auto add = [&](int fd) {
        if (fd < 0 || fd >= FD_SETSIZE) return;
        FD_SET(fd, set);
        top = std::max(top, fd);
    };
    net_deadline now = net_clock::now();
    net_deadline wake = now + std::chrono::seconds(cfg.timeout_seconds);
    if (now >= st.accept_resume)
        add(cfg.listen_sock);
    else
        wake = std::min(wake, st.accept_resume);
    add(get_stop_fd());
    if (st.lend != nullptr) add(st.lend->wake.fds[0]);
    for (const net_conn& c : st.conns) {
        if (c.sock < 0 || st.lent[slot_of(st, &c)]) continue;
        if (!c.peer_closed) add(c.sock);
        if (c.in_request) wake = std::min(wake, c.deadline);
    }
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(wake - now);
    long long us = std::max<long long>(left.count(), 0);
    *timeout = timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
    return top + 1;
}

// One pass over every connection in ascending descriptor order; a request that waits in a
// connection's buffer (pipelined, or its peer closed) is served without a new select.
bool serve_pass(const loop_config& cfg, loop_state* st, const fd_set& ready) {
    std::array<net_conn*, kMaxClientsPerPort> order{};
    int n = 0;
    for (net_conn& c : st->conns)
        if (c.sock >= 0 && !st->lent[slot_of(*st, &c)]) order[static_cast<size_t>(n++)] = &c;
    std::sort(order.begin(), order.begin() + n,
              [](const net_conn* a, const net_conn* b) { return a->sock < b->sock; });
    bool more = false;
    for (int i = 0; i < n; ++i) {
        net_conn* conn = order[static_cast<size_t>(i)];
        bool readable = conn->sock < FD_SETSIZE && FD_ISSET(conn->sock, &ready);
        if (serve_one(cfg, st, conn, readable ? conn_receive(conn) : conn_check(conn))) more = true;
    }
    return more;
}

void run_loop(const loop_config& cfg) {
    loop_state st;
    for (net_conn& c : st.conns) conn_open(&c, -1, 0);
    st.descriptor_ceiling = descriptor_ceiling();
    if (cfg.workers > 0) st.lend = std::make_unique<lending>(cfg.workers);
    if (cfg.listen_sock >= 0)
        fcntl(cfg.listen_sock, F_SETFL, fcntl(cfg.listen_sock, F_GETFL) | O_NONBLOCK);
    bool pending = false;  // a request is already in a buffer: do not wait for more bytes

    while (get_stop_flag() != 1) {
        fd_set ready;
        timeval timeout{};
        int count = prepare(cfg, st, &ready, &timeout);
        if (pending) timeout = timeval{0, 0};
        int n = select(count, &ready, nullptr, nullptr, &timeout);
        if (n < 0) {
            // The set holds nothing valid after a failure (a signal, mostly): try again.
            if (errno != EINTR) usleep(100000);
            continue;
        }
        if (get_stop_flag() == 1) break;
        if (n > 0) g_daemon.poll_interval_us.store(kPollBusyUs);
        bool accept_now = n > 0 && cfg.listen_sock >= 0 && cfg.listen_sock < FD_SETSIZE &&
                          FD_ISSET(cfg.listen_sock, &ready);
        if (n == 0) FD_ZERO(&ready);
        // Connections first: one accepted in this pass is served from the next.
        pending = serve_pass(cfg, &st, ready);
        if (st.lend != nullptr && FD_ISSET(st.lend->wake.fds[0], &ready))
            pending = take_back(cfg, &st) || pending;
        if (accept_now) accept_waiting(cfg, &st);
    }
}

// --- port 7000 ---

bool airplay_serve(net_conn* conn) {
    log_tagged(zor_log::kGreen, "airplay_thread read socket %d\n", conn->sock);
    return airplay_dispatch(&g_daemon.session, conn) < 0;
}

// No event may ever be written to a descriptor number that a later connection reuses: every
// way a connection closes forgets it as the reverse connection first.
void airplay_before_close(int sock) {
    log_tagged(zor_log::kGreen, "airplay_thread close socket %d\n", sock);
    std::lock_guard<std::mutex> hold(g_daemon.session.event_lock);
    int expected = sock;
    g_daemon.session.event_socket.compare_exchange_strong(expected, 0);
}

// --- port 5000 ---

bool airtunes_serve(net_conn* conn) {
    if (access("/tmp/airplay_key_stopped.txt", F_OK) == 0 &&
        airtunes_key_stop(&g_daemon.session, conn->sock) != 0)
        return true;
    return airtunes_dispatch(&g_daemon.session, conn) < 0;
}

// --- port 4000 ---

bool proxy_serve(net_conn* conn) {
    return proxy_handle_request(conn) < 0;
}

}  // namespace

void* airplay_thread(void*) {
    loop_config cfg{
        .port = 7000,
        .listen_sock = g_daemon.airplay_sock,
        .timeout_seconds = 8,
        .serve = airplay_serve,
        .on_accept_fail =
            [](int listen, int result) {
                log_tagged(zor_log::kRed, "airplay_thread accept fail(%d)=%d\n", listen, result);
            },
        .on_accepted =
            [](int sock) { log_tagged(zor_log::kGreen, "airplay_thread new socket %d\n", sock); },
        .before_close = airplay_before_close,
        .on_close_fail =
            [](int sock) { log_tagged(zor_log::kRed, "airplay_thread close fail(%d)\n", sock); },
    };
    run_loop(cfg);
    return nullptr;
}

void* airtunes_thread(void*) {
    loop_config cfg{
        .port = 5000,
        .listen_sock = g_daemon.airtunes_sock,
        .timeout_seconds = 8,
        .serve = airtunes_serve,
        .on_accept_fail = nothing2,
        .on_accepted = nothing,
        .before_close = nothing,
        .on_close_fail = nothing,
    };
    run_loop(cfg);
    return nullptr;
}

void* airplay_video_proxy_server(void*) {
    loop_config cfg{
        .port = 4000,
        .listen_sock = g_daemon.proxy_sock,
        .timeout_seconds = 4,
        .serve = proxy_serve,
        .on_accept_fail =
            [](int listen, int result) {
                LOG_ERROR_BLANK("airplay_video_proxy_server", "accept fail(%d)=%i\n", listen,
                                result);
            },
        .on_accepted = nothing,
        .before_close = [](int sock) { log_plain("close socket: %d\n", sock); },
        .on_close_fail =
            [](int sock) {
                LOG_ERROR_BLANK("airplay_video_proxy_server", "close fail(%d)\n", sock);
            },
        // A relay lasts as long as the media does; the player's other connections go on.
        .workers = kProxyWorkers,
        .peer_allowed = proxy_peer_allowed,
    };
    run_loop(cfg);
    return nullptr;
}
