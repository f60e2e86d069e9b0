#include "main/connection_loops.h"

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "airplay/airplay.h"
#include "airtunes/airtunes.h"
#include "main/daemon.h"
#include "proxy/proxy.h"
#include "tools/utils/log.h"
#include "tools/utils/net.h"

namespace {

// What differs between the three loops; the loop itself is shared.
struct loop_config {
    int listen_sock;
    int timeout_seconds;
    // Serves one readable client; returns true when the connection is to be closed.
    bool (*serve)(int sock);
    void (*on_accept_fail)(int listen_sock, int result);
    void (*on_accepted)(int sock);
    void (*before_close)(int sock);
    void (*on_close_fail)(int sock);
};

void nothing(int) {}
void nothing2(int, int) {}

// select() cannot watch descriptors from FD_SETSIZE on; such a connection is refused.
bool register_client(int sock, fd_set* registered) {
    if (sock >= FD_SETSIZE) {
        log_tagged(zor_log::kRed, "refused connection %d: descriptor beyond select's limit\n",
                   sock);
        close(sock);
        return false;
    }
    socket_set_timeouts(sock, kClientTimeoutSeconds);
    FD_SET(sock, registered);
    return true;
}

void accept_client(const loop_config& cfg, fd_set* registered) {
    sockaddr_in peer{};
    socklen_t len = sizeof(peer);
    int sock = accept(cfg.listen_sock, reinterpret_cast<sockaddr*>(&peer), &len);
    if (sock < 0) {
        cfg.on_accept_fail(cfg.listen_sock, sock);
        return;
    }
    if (register_client(sock, registered)) cfg.on_accepted(sock);
}

void close_client(const loop_config& cfg, int sock, fd_set* registered) {
    cfg.before_close(sock);
    if (close(sock) == 0)
        FD_CLR(sock, registered);
    else
        cfg.on_close_fail(sock);
}

void serve_ready(const loop_config& cfg, const fd_set& ready, fd_set* registered) {
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        if (!FD_ISSET(fd, &ready)) continue;
        if (fd == cfg.listen_sock)
            accept_client(cfg, registered);
        else if (cfg.serve(fd))
            close_client(cfg, fd, registered);
    }
}

void run_loop(const loop_config& cfg) {
    fd_set registered;
    FD_ZERO(&registered);
    // A port whose socket could not be opened leaves an empty set: the loop just waits.
    if (cfg.listen_sock >= 0 && cfg.listen_sock < FD_SETSIZE) FD_SET(cfg.listen_sock, &registered);

    while (g_daemon.stop_flag.load() != 1) {
        timeval timeout{cfg.timeout_seconds, 0};
        fd_set ready = registered;
        int n = select(FD_SETSIZE, &ready, nullptr, nullptr, &timeout);
        if (n == 0) continue;
        if (n < 0) {
            // The set holds nothing valid after a failure (a signal, mostly): try again.
            if (errno != EINTR) usleep(100000);
            continue;
        }
        g_daemon.poll_interval_us.store(kPollBusyUs);
        if (g_daemon.stop_flag.load() == 1) break;  // woken by the shutdown
        serve_ready(cfg, ready, &registered);
    }
}

// --- port 7000 ---

bool airplay_serve(int sock) {
    log_tagged(zor_log::kGreen, "airplay_thread read socket %d\n", sock);
    if (airplay_dispatch(&g_daemon.session, sock) >= 0) return false;
    // No event may ever be written to a descriptor number that a later connection reuses.
    int expected = sock;
    g_daemon.session.event_socket.compare_exchange_strong(expected, 0);
    return true;
}

// --- port 5000 ---

bool airtunes_serve(int sock) {
    if (access("/tmp/airplay_key_stopped.txt", F_OK) == 0 &&
        airtunes_key_stop(&g_daemon.session, sock) != 0)
        return true;
    return airtunes_dispatch(&g_daemon.session, sock) < 0;
}

// --- port 4000 ---

bool proxy_serve(int sock) {
    return proxy_handle_request(sock) < 0;
}

}  // namespace

void* airplay_thread(void*) {
    loop_config cfg{
        .listen_sock = g_daemon.airplay_sock,
        .timeout_seconds = 8,
        .serve = airplay_serve,
        .on_accept_fail =
            [](int listen, int result) {
                log_tagged(zor_log::kRed, "airplay_thread accept fail(%d)=%d\n", listen, result);
            },
        .on_accepted =
            [](int sock) { log_tagged(zor_log::kGreen, "airplay_thread new socket %d\n", sock); },
        .before_close =
            [](int sock) { log_tagged(zor_log::kGreen, "airplay_thread close socket %d\n", sock); },
        .on_close_fail =
            [](int sock) { log_tagged(zor_log::kRed, "airplay_thread close fail(%d)\n", sock); },
    };
    run_loop(cfg);
    return nullptr;
}

void* airtunes_thread(void*) {
    loop_config cfg{
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
        .listen_sock = g_daemon.proxy_sock,
        .timeout_seconds = 4,
        .serve = proxy_serve,
        .on_accept_fail =
            [](int listen, int result) {
                LOG_ERROR_AT_FN("airplay_video_proxy_server", "accept fail(%d)=%i\n", listen,
                                result);
            },
        .on_accepted = nothing,
        .before_close = [](int sock) { log_plain("close socket: %d\n", sock); },
        .on_close_fail =
            [](int sock) {
                LOG_ERROR_AT_FN("airplay_video_proxy_server", "close fail(%d)\n", sock);
            },
    };
    run_loop(cfg);
    return nullptr;
}
