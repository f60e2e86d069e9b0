// Requests as read from a client, and the exchange record each dispatcher works in.
#pragma once

#include <cstddef>

// The common size of a header block, a body text and a reply.
inline constexpr int kTextSize = 5120;

// One message with its text, in fixed storage.
struct net_message {
    // Header block length including "\r\n\r\n"; the bytes read when the block never ended.
    int header_len;
    // Received request: its Content-Length (0 if absent). Player reply: bytes received.
    int content_length;
    // The header block, NUL-terminated. In a reply: its extra header line(s).
    char head[kTextSize];
    // Received request: body bytes that came with the header block. Player request/reply:
    // the command URL, then the request sent / the reply received. Reply: the body text.
    char body[kTextSize];
};

// Working storage of one dispatcher (and of the player client it calls).
struct net_exchange {
    net_message request;         // the client's request, filled by read_request
    net_message player_reply;    // the player control service's reply
    net_message player_request;  // the player command URL, then the request text sent
    net_message reply;           // extra reply header line(s) in head, reply body in body
};

// Zeroes every count and text of a message / an exchange.
void net_message_clear(net_message* msg);
void net_exchange_clear(net_exchange* x);

// Finds the NUL-terminated needle in the first size - 1 bytes of buffer (stopping at an
// earlier zero byte). Returns the match or null. The buffer is left as it was.
char* find_bounded(char* buffer, const char* needle, size_t size);

// Reason phrase of a status code: 200 "OK", 501 "Not Implemented",
// 101 "Switching Protocols", anything else "Unknown".
const char* status_reason(int status);
