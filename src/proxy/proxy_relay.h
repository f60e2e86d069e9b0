// The media server's side of one proxy exchange: its response is relayed to the player.
#pragma once

#include <chrono>

// Time the media server may go without sending, and the player without taking, before the
// relay is given up.
inline constexpr std::chrono::seconds kRelayStallLimit{10};

// Reads the media server's response on upstream and relays it to player: the header block
// with the body bytes that came with it in one write, then the rest of Content-Length.
// A response without Content-Length (or with 0) relays nothing. Returns 0 when the
// response was relayed whole or not at all (the player's connection can go on), -1 when it
// was cut short (the player's connection is out of step and must be closed).
int proxy_relay_response(int upstream, int player);
