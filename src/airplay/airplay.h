// The AirPlay (HTTP, port 7000) request dispatcher and its reply framing.
#pragma once

#include "main/daemon.h"
#include "tools/utils/conn.h"

// Reads and answers one request on an AirPlay connection. Returns the status of the reply
// sent (200, 101, 501), 200 without a reply for a response arriving on the reverse
// connection, or -1 when the connection is to be closed.
int airplay_dispatch(media_session* session, net_conn* conn);

// Frames and sends an HTTP/1.1 reply: status line, Date, the extra header line(s) in
// reply->head, Content-Length and reply->body. Returns the bytes written.
int airplay_send_reply(int sock, int status, const net_message* reply);
