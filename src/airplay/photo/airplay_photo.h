// AirPlay photos: showing a sender's JPEG through the player, and the photo status poll.
#pragma once

#include "main/daemon.h"
#include "tools/utils/conn.h"

// Largest photo body taken; a larger one is refused before anything is read or allocated.
inline constexpr int kPhotoBodyLimit = 32 * 1024 * 1024;

// PUT /photo (AirPlay thread): reads the JPEG body, stores it as "/tmp/airplay_photo.jpg",
// writes the flag file and has the player show it; with cache_only the body is read and
// dropped. 0, or -1 (logged) when the body is empty, too large, cut short or cannot be
// stored, or the player refuses it; the dispatcher then closes the connection.
int airplay_photo_start(net_conn* conn, int read_count, net_exchange* x, int cache_only);

// POST /stop while a photo is shown (AirPlay thread): stop_pod to the player, then both
// photo files are removed whatever it answered. 0 when the player accepted, else -1.
int airplay_photo_stop(net_exchange* x);

// The main loop's photo poll: reads what waits in "/tmp/airplay_pipe" (pipe_fd,
// non-blocking) and sends the sender a "stopped" event when it holds "stop". Returns 1
// while the flag file exists (a photo is shown), else 0.
int airplay_photo_monitor(media_session* session, int pipe_fd);
