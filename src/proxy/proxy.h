// The video proxy (TCP 4000) through which the box's player fetches the sender's media.
#pragma once

#include <cstdint>

#include "tools/utils/conn.h"

// Serves one request of the player on conn (on a proxy worker; conn is the worker's until
// it returns): learns or uses the remembered media server, sends it the upstream request on
// a connection of its own, and relays the response. A request that cannot be served (a
// value beyond its limit, an unknown, unresolvable, refused or unreachable media server)
// gets "502 Bad Gateway". Returns a negative number when the connection is to be closed:
// no request could be read, a 502 was sent, or the relay was cut short.
int proxy_handle_request(net_conn* conn);

// Whether a peer (IPv4, network byte order) may use the proxy: loopback addresses only, as
// the proxy is the box's player's; the connection loop refuses anyone else at accept.
bool proxy_peer_allowed(uint32_t peer_addr);
