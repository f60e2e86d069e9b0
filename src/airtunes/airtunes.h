// The AirTunes (RTSP, port 5000) service: request dispatcher and the key-stop check.
#pragma once

#include "tools/utils/conn.h"

#include "main/daemon.h"

// Reads and answers one RTSP request. Returns the reply's status (200, 501), or a
// negative number when the connection is to be closed.
int airtunes_dispatch(media_session* session, net_conn* conn);

// Called while "/tmp/airplay_key_stopped.txt" exists: ends the AirTunes session.
// Returns non-zero when it did, and the connection is then closed.
int airtunes_key_stop(media_session* session, int sock);
