// AirPlay photos: showing a sender's JPEG through the player, and the photo status poll.
#pragma once

#include "main/daemon.h"
#include "tools/utils/conn.h"

// PUT /photo: stores the JPEG and has the player show it (unless cache_only). 0 or -1.
int airplay_photo_start(net_conn* conn, int read_count, net_exchange* x, int cache_only);

// POST /stop while a photo is shown: hides it. 0 or -1.
int airplay_photo_stop(net_exchange* x);

// The main loop's photo poll; reads "/tmp/airplay_pipe" through pipe_fd.
// Returns 1 while a photo is shown, else 0.
int airplay_photo_monitor(media_session* session, int pipe_fd);
