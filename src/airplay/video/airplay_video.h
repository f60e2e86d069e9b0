// AirPlay video: the playback state shared with the rest of the daemon, the monitor that
// follows the player and posts events to the sender, video start, seek, rate and stop.
#pragma once

#include <atomic>

#include "main/daemon.h"
#include "tools/utils/conn.h"

// Video playback state as last reported by the player. Written by the main loop's monitor
// and by the AirPlay thread's handlers, read by both: every field is atomic.
struct video_status_record {
    std::atomic<int> status;        // 0 started, 1 playing, 2 buffering, 3 paused, 4 stopped
    std::atomic<int> last_status;   // the status the monitor last acted upon
    std::atomic<int> position;      // current time, whole seconds
    std::atomic<int> duration;      // total time, whole seconds
    std::atomic<int> seek_enabled;  // 1 when the player reports the media seekable
};

extern video_status_record video_status;
// Start position of the last POST /play that had no usable location (for the deferred seek).
extern std::atomic<float> start_position;
// 1 from a successful video start until the monitor sees the video end.
extern std::atomic<int> video_started;

// Sets status and last_status to 4 (stopped). Called once by the main loop.
void airplay_video_init();

// One poll of the player's video state; posts events on the sender's reverse connection.
// Returns the status at the end of the call, 4 at once when no video was started.
int airplay_video_monitor(media_session* session);

// The AirPlay handlers: each returns 0 on success, -1 on failure.
int airplay_video_start(net_conn* conn, int read_count, net_exchange* x);  // POST /play
int airplay_video_rate(net_exchange* x);                             // POST /rate
int airplay_video_scrub(net_exchange* x);                            // POST /scrub
int airplay_video_stop(net_exchange* x);                             // POST /stop (video)

// Queues a seek to target seconds through the seek thread. Returns 0.
int airplay_video_seek(net_message* command, net_exchange* reply, int target);

// Reads the player's get_current_vod_info reply text into vs: status (4 when no known
// status tag), seek_enabled, duration and position (whole seconds; digits cut to 31
// characters). Does nothing when text is null.
void airplay_video_parse_info(const char* text, video_status_record* vs);

// Writes one "POST /event" request with the state ("loading", "playing", "paused",
// "stopped") and the category of the media shown to sock. Returns the bytes written; a
// short write is logged, never retried.
int send_playback_event_xml(int sock, const char* state);

// Posts the event on the sender's reverse connection, if there is one. Safe against the
// connection loop closing that connection meanwhile: an event never reaches a descriptor
// reused by another connection. Returns the bytes written, or -1 when there is no
// reverse connection.
int send_event_to_sender(media_session* session, const char* state);
