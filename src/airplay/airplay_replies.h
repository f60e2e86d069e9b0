// The AirPlay service's fixed replies. Each builder writes the extra header line into
// x->reply.head and the body text into x->reply.body; every body line ends with "\r\n".
#pragma once

#include "main/daemon.h"
#include "tools/utils/request.h"

// The standard XML property-list document type line (without its line end).
#define PLIST_DOCTYPE                                         \
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" " \
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">"

// The first three lines of every XML property list the service writes, each with "\r\n".
#define PLIST_HEAD                                                 \
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n" PLIST_DOCTYPE \
    "\r\n"                                                         \
    "<plist version=\"1.0\">\r\n"

// GET /server-info: takes the sender's session id from the request's "X-Apple-Session-ID:"
// (the 36 characters starting 20 after the name) into session->session_id, then describes
// the box with eth0's MAC address.
void build_server_info(media_session* session, net_exchange* x);

// GET /playback-info: duration, position and rate from video_status.
void build_playback_info(net_exchange* x);

// GET /scrub: "duration: %f\r\nposition: %f\r\n" from video_status.
void build_scrub_reply(net_exchange* x);

// POST /getProperty?playbackAccessLog: the access log with the session id (all zeros when
// there is none) and the current UTC date; the body is also written to the log.
void build_access_log(const media_session* session, net_exchange* x);

// POST /getProperty?playbackErrorLog: an empty error log; the body is also written to the log.
void build_error_log(net_exchange* x);
