// AirPlay video: the playback state shared with the rest of the daemon, the monitor that
// follows the player and posts events to the sender, video start, seek, rate and stop.
#pragma once

#include <mutex>

#include "main/daemon.h"
#include "tools/utils/conn.h"

// Video playback state as last reported by the player.
struct video_status_record {
    int status = 4;        // 0 started, 1 playing, 2 buffering, 3 paused, 4 stopped
    int last_status = 4;   // the status the monitor last acted upon
    int position = 0;      // current time, whole seconds
    int duration = 0;      // total time, whole seconds
    int seek_enabled = 0;  // 1 when the player reports the media seekable
};

// The one video record: video_status and its companions. Written by the main loop's
// monitor and by the AirPlay thread's handlers, read by both, always under its lock (see
// video_record_change), so no reader ever combines fields of two polls and no writer's
// change is lost to another's.
struct video_record {
    video_status_record video_status;
    // Start position of the last POST /play that had no usable location (deferred seek).
    float start_position = 0.0f;
    // 1 from a successful video start until the monitor sees the video end.
    int video_started = 0;
    // Successful starts so far: a player reply to a query sent before the latest start
    // describes the video before it and is not applied.
    unsigned starts = 0;
};

namespace video_record_detail {
std::mutex& lock();
video_record& record();
}  // namespace video_record_detail

// A consistent copy of the record.
video_record video_record_copy();

// Applies change to the record with its lock held and returns what change returns. change
// touches memory only: no player request, no socket write, no log line under the lock.
template <class Change>
auto video_record_change(Change change) {
    std::lock_guard<std::mutex> hold(video_record_detail::lock());
    return change(video_record_detail::record());
}

// Sets status and last_status to 4 (stopped). Called once by the main loop.
void airplay_video_init();

// One poll of the player's video state; posts events on the sender's reverse connection and
// writes what earlier events left queued there. Never waits on the sender.
// Returns the status at the end of the call, 4 at once when no video was started.
int airplay_video_monitor(media_session* session);

// The AirPlay handlers: each returns 0 on success, -1 on failure.
int airplay_video_start(net_conn* conn, int read_count, net_exchange* x);  // POST /play
int airplay_video_rate(net_exchange* x);                                   // POST /rate
int airplay_video_scrub(net_exchange* x);                                  // POST /scrub
int airplay_video_stop(net_exchange* x);                                   // POST /stop (video)

// Queues a seek to target seconds through the seek thread. Returns 0.
int airplay_video_seek(int target);

// Reads the player's get_current_vod_info reply text into vs: status (4 when no known
// status tag), seek_enabled, duration and position (whole seconds; digits cut to 31
// characters). Does nothing when text is null.
void airplay_video_parse_info(const char* text, video_status_record* vs);

// Posts one "POST /event" request with the state ("loading", "playing", "paused",
// "stopped") and the category of the media shown on the sender's reverse connection
// (event_socket), without ever waiting: the request is written whole, or what the socket
// cannot take now is queued (a few events at most) and written by airplay_events_flush as
// the socket drains. When the queue cannot take it, or the socket fails, the reverse
// connection is dropped and event_socket forgotten, with one log line. Never reaches a
// descriptor that a later connection reused. Returns the request's length when it was
// written or queued whole, -1 when there is no reverse connection or it was dropped.
int send_playback_event_xml(media_session* session, const char* state);

// Writes what is queued for the reverse connection, as far as it takes it now.
void airplay_events_flush(media_session* session);

// Whether the sender's reverse connection is still there; event_socket is forgotten when
// its connection has gone.
bool airplay_events_connected(media_session* session);

// Makes sock (the AirPlay connection that sent POST /reverse and has had its 101) the
// reverse connection: event_socket, with an empty queue. AirPlay thread.
void airplay_events_attach(media_session* session, int sock);
