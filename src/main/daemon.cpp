#include "main/daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "airplay/photo/airplay_photo.h"
#include "airplay/video/airplay_video.h"
#include "airtunes/audio/airtunes_audio.h"
#include "main/connection_loops.h"
#include "tools/utils/log.h"
#include "tools/utils/net.h"

daemon_state g_daemon = {.airplay_sock = 0,
                         .airtunes_sock = 0,
                         .proxy_sock = 0,
                         .pipe_fd = 0,
                         .stop_flag = 0,
                         .stop_pipe_read = -1,
                         .stop_pipe_write = -1,
                         .poll_interval_us = kPollIdleUs,
                         .airplay_thread = {},
                         .airtunes_thread = {},
                         .audio_thread = {},
                         .proxy_thread = {},
                         .airplay_started = false,
                         .airtunes_started = false,
                         .audio_started = false,
                         .proxy_started = false,
                         .session = {}};

namespace {

constexpr const char kAirplayPipe[] = "/tmp/airplay_pipe";
constexpr const char kKeyStopFile[] = "/tmp/airplay_key_stopped.txt";
constexpr const char kAudioPipe[] = "/tmp/airtunes";
constexpr int kCountdownStart = 50;

// Only sets the flag and wakes the waits: the main thread does the shutting down.
void on_stop_signal(int) {
    daemon_request_stop();
}

void make_stop_pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return;
    g_daemon.stop_pipe_read.store(fds[0]);
    g_daemon.stop_pipe_write.store(fds[1]);
}

// Sleeps for the poll interval, or less when the daemon stops meanwhile.
void sleep_unless_stopped(int interval_us) {
    pollfd fd{get_stop_fd(), POLLIN, 0};
    if (get_stop_flag() != 1) poll(&fd, 1, interval_us / 1000);
}

void install_signals() {
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
}

void remove_stale_files() {
    std::remove("/tmp/airplay_photo.jpg");
    std::remove("/tmp/airplay_photo.flg");
}

void open_listening_sockets() {
    g_daemon.airplay_sock = make_socket_in(7000);
    g_daemon.airtunes_sock = make_socket_in(5000);
    g_daemon.proxy_sock = make_socket_in(4000);
}

void create_airplay_pipe() {
    if (access(kAirplayPipe, F_OK) == 0) std::remove(kAirplayPipe);
    if (access(kKeyStopFile, F_OK) == 0) std::remove(kKeyStopFile);
    if (mkfifo(kAirplayPipe, 0644) != 0) LOG_ERROR_BLANK("main", "Failed to create pipe\n");
    // A non-blocking read end opens at once, whether or not a writer has the FIFO open.
    g_daemon.pipe_fd = open(kAirplayPipe, O_RDONLY | O_NONBLOCK);
}

bool start_thread(pthread_t* handle, bool* started, void* (*entry)(void*)) {
    *started = pthread_create(handle, nullptr, entry, nullptr) == 0;
    if (!*started) daemon_request_stop();
    return *started;
}

void start_threads() {
    if (!start_thread(&g_daemon.airplay_thread, &g_daemon.airplay_started, airplay_thread))
        LOG_ERROR_BLANK("main", "Failed to create key airplay thread\n");
    if (!start_thread(&g_daemon.airtunes_thread, &g_daemon.airtunes_started, airtunes_thread))
        LOG_ERROR_BLANK("main", "Failed to create key airtunes thread\n");
    if (!start_thread(&g_daemon.audio_thread, &g_daemon.audio_started, audio_receiver_thread))
        LOG_ERROR_BLANK("main", "Failed to create key reader thread\n");
    if (!start_thread(&g_daemon.proxy_thread, &g_daemon.proxy_started, airplay_video_proxy_server))
        LOG_ERROR_BLANK("main", "Failed to create key reader thread\n");
}

void set_bit(uint32_t bit, bool on) {
    if (on)
        g_daemon.session.activity_mask.fetch_or(bit);
    else
        g_daemon.session.activity_mask.fetch_and(~bit);
}

// The receiver thread may sit in a blocking open of the audio FIFO waiting for a reader;
// opening and closing the read end lets that open return.
void release_audio_pipe_writer() {
    int fd = open(kAudioPipe, O_RDONLY | O_NONBLOCK);
    if (fd >= 0) close(fd);
}

void join_thread(pthread_t handle, bool started) {
    if (started) pthread_join(handle, nullptr);
}

void close_if_open(int fd) {
    if (fd != 0) close(fd);
}

}  // namespace

void daemon_init_session(media_session* session) {
    std::memset(session->owner_device_id, 0, sizeof(session->owner_device_id));
    std::memset(session->session_id, 0, sizeof(session->session_id));
    std::memset(session->played_session_id, 0, sizeof(session->played_session_id));
    session->event_socket.store(0);
    session->activity_mask.store(0);
}

uint32_t get_activity_mask() {
    return g_daemon.session.activity_mask.load();
}

int get_stop_flag() {
    return g_daemon.stop_flag.load();
}

void daemon_request_stop() {
    g_daemon.stop_flag.store(1);
    int fd = g_daemon.stop_pipe_write.load();
    if (fd >= 0) {
        ssize_t ignored = write(fd, "s", 1);  // one byte is enough: nobody ever reads it
        (void)ignored;
    }
}

int get_stop_fd() {
    return g_daemon.stop_pipe_read.load();
}

void daemon_poll_pass(int* countdown) {
    media_session* session = &g_daemon.session;
    set_bit(kActivityVideo, airplay_video_monitor(session) != 4);
    set_bit(kActivityPhoto, airplay_photo_monitor(session, g_daemon.pipe_fd) == 1);
    set_bit(kActivityAudio, airtunes_audio_status() == 2);

    int interval = g_daemon.poll_interval_us.load();
    if (get_activity_mask() == 0 && interval == kPollIdleUs) {
        sleep_unless_stopped(interval);
        return;
    }
    sleep_unless_stopped(interval);
    if (*countdown > 0) --*countdown;
    if (get_activity_mask() == 0 && *countdown == 0) {
        g_daemon.poll_interval_us.store(kPollIdleUs);
        *countdown = kCountdownStart;
    }
}

void daemon_shutdown() {
    daemon_request_stop();  // wakes every loop at once, whoever asked for the stop
    release_audio_pipe_writer();

    // Joined before the descriptors close, so no loop ever selects on a number that has
    // been closed and perhaps reused.
    join_thread(g_daemon.airplay_thread, g_daemon.airplay_started);
    join_thread(g_daemon.airtunes_thread, g_daemon.airtunes_started);
    join_thread(g_daemon.audio_thread, g_daemon.audio_started);
    join_thread(g_daemon.proxy_thread, g_daemon.proxy_started);

    close_if_open(g_daemon.airtunes_sock);
    close_if_open(g_daemon.airplay_sock);
    close_if_open(g_daemon.proxy_sock);
    close_if_open(g_daemon.pipe_fd);
}

int daemon_main() {
    log_init();
    make_stop_pipe();
    install_signals();
    int countdown = kCountdownStart;
    g_daemon.stop_flag.store(0);
    daemon_init_session(&g_daemon.session);
    remove_stale_files();
    open_listening_sockets();
    create_airplay_pipe();

    if (g_daemon.airtunes_sock < 0 || g_daemon.airplay_sock < 0) {
        LOG_ERROR_BLANK("main", "Failed to create socket: %i | %i \n", g_daemon.airplay_sock,
                        g_daemon.airtunes_sock);
    } else {
        start_threads();
        airplay_video_init();
        while (g_daemon.stop_flag.load() != 1) daemon_poll_pass(&countdown);
    }
    daemon_shutdown();
    return 0;
}
