// Client of the box's player control service (HTTP on 127.0.0.1:8008): one short
// connection per command.
#pragma once

#include "tools/utils/request.h"

// The player's control service, as command URLs spell it.
#define PLAYER_URL_PREFIX "http://127.0.0.1:8008"

// How long the client waits for the service to accept and to answer.
inline constexpr int kPlayerTimeoutSeconds = 5;

// Sends the command whose full URL ("http://host:port/target") is in request->body and
// stores the reply in x->player_reply (body: at most 5119 bytes, NUL-terminated;
// content_length: bytes received, 0 when the service closed or timed out without
// answering). On return request->body holds the request text sent.
// Returns 0 when the request went out, -1 when the URL has no "//", ":" or "/" after the
// ":", the name cannot be resolved, or the connection fails (player_reply untouched).
int cs_request_with_response(net_message* request, net_exchange* x);

// The rule by which callers judge a command: the reply is not empty and carries
// "<returnValue>0<".
bool player_command_ok(const net_exchange* x);

// Clears both player records, writes PLAYER_URL_PREFIX + target as the command URL and
// sends it through x. Returns player_command_ok after the exchange.
bool player_command(net_exchange* x, const char* target);
