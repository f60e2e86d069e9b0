// The three connection loops, one thread each: every loop multiplexes its listening
// socket and its client connections with one select and serves ready connections in turn.
#pragma once

// Port 7000: hands each readable connection to airplay_dispatch.
void* airplay_thread(void* unused);

// Port 5000: checks the key-stop file, then hands the connection to airtunes_dispatch.
void* airtunes_thread(void* unused);

// Port 4000: hands each readable connection to proxy_handle_request.
void* airplay_video_proxy_server(void* unused);

// Time-out given to every accepted connection for its reads and writes.
inline constexpr int kClientTimeoutSeconds = 10;
