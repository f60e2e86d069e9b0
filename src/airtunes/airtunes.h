// The AirTunes (RTSP, port 5000) service: request dispatcher and the key-stop check. Runs on
// the AirTunes thread only, in the service's one net_exchange.
#pragma once

#include "main/daemon.h"
#include "tools/utils/conn.h"

// Reads and answers one RTSP request. Returns the reply's status (200, 501; 200 also for an
// HTTP response a peer sent, which gets no reply), or a negative number when the connection
// is to be closed (read failure, refused ANNOUNCE, failed ANNOUNCE or decoder).
int airtunes_dispatch(media_session* session, net_conn* conn);

// Called while "/tmp/airplay_key_stopped.txt" exists. When it holds "key_stopped", ends the
// stream without reading the waiting request: two identical replies on sock, the owner
// cleared, the files removed. Returns 1 then (the connection is to be closed), else 0.
int airtunes_key_stop(media_session* session, int sock);
