// The process-wide state: listening sockets, the stop flag, the poll interval, the service
// threads and the media session shared by both services.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>

// Bits of media_session::activity_mask.
inline constexpr uint32_t kActivityVideo = 1;
inline constexpr uint32_t kActivityAudio = 2;
inline constexpr uint32_t kActivityPhoto = 4;

// Poll intervals of the main loop, in microseconds.
inline constexpr int kPollIdleUs = 2000000;
inline constexpr int kPollBusyUs = 250000;

// The one session record, passed by address to both dispatchers and the monitors.
struct media_session {
    // X-Apple-Device-ID of the sender that owns the AirTunes service; empty = unowned.
    // Written and read by the AirTunes thread only.
    char owner_device_id[15];
    // X-Apple-Session-ID of the last GET /server-info, and the one current when the last
    // POST /play was accepted. Written and read by the AirPlay thread only.
    char session_id[37];
    char played_session_id[37];
    // Which media the box presents (kActivity*). Written by the main loop only.
    std::atomic<uint32_t> activity_mask;
    // The AirPlay sender's reverse connection (0 = none). Written by the AirPlay thread,
    // read by the main loop's monitors when they post events.
    std::atomic<int> event_socket;
    // Held by the AirPlay thread while it forgets the reverse connection before closing it,
    // and by an event's sender while it takes its own duplicate: so no duplicate is taken of
    // a descriptor being closed, or of one that a later connection reuses.
    std::mutex event_lock;
};

struct daemon_state {
    int airplay_sock;   // listening socket of TCP 7000, served by airplay_thread
    int airtunes_sock;  // listening socket of TCP 5000, served by airtunes_thread
    int proxy_sock;     // listening socket of TCP 4000, served by airplay_video_proxy_server
    int pipe_fd;        // read end of "/tmp/airplay_pipe", non-blocking; read by the main loop
    // 1 = stop. Set at start-up when a thread cannot be created, and by SIGTERM/SIGINT;
    // every long-lived loop tests it once per pass.
    std::atomic<int> stop_flag;
    // A pipe written once when the daemon stops and never read, so it stays readable: every
    // wait of the daemon (select, poll) watches its read end and ends at once. -1 until made.
    std::atomic<int> stop_pipe_read;
    std::atomic<int> stop_pipe_write;
    // Sleep of the main loop: the connection loops set kPollBusyUs on traffic, only the
    // main loop sets kPollIdleUs again.
    std::atomic<int> poll_interval_us;
    // Thread handles; valid only where the matching *_started flag is set.
    pthread_t airplay_thread, airtunes_thread, audio_thread, proxy_thread;
    bool airplay_started, airtunes_started, audio_started, proxy_started;
    media_session session;
};

// The daemon's state record (static storage; zero at start but for poll_interval_us).
extern daemon_state g_daemon;

// The whole life of the process: start-up, the main polling loop, shutdown. Returns 0.
int daemon_main();

// Empties every field of the media session.
void daemon_init_session(media_session* session);

// One pass of the main polling loop (the three polls, the activity mask, the sleep);
// countdown is the loop's pass counter, starting at 50.
void daemon_poll_pass(int* countdown);

// Wakes the service loops, joins them and closes the sockets and the FIFO.
void daemon_shutdown();

// The current activity mask (kActivity* bits).
uint32_t get_activity_mask();

// The stop flag: 1 when the daemon is stopping.
int get_stop_flag();

// Sets the stop flag and wakes every wait that watches the stop pipe. Async-signal-safe.
void daemon_request_stop();

// Read end of the stop pipe: readable once the daemon stops; -1 when there is none (a
// program without the daemon). Add it to every poll or select that may wait long.
int get_stop_fd();
