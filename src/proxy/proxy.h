// The video proxy (TCP 4000) through which the player fetches the sender's media.
#pragma once

#include "tools/utils/conn.h"

// Serves one request of the player. Returns a negative number when the connection is to
// be closed.
int proxy_handle_request(net_conn* conn);
