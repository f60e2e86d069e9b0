// Until the RTSP methods land every request is answered 501, framed as the service frames
// it: the status line alone.
#include "airtunes/airtunes.h"

#include <cstdio>
#include <cstring>

#include "tools/utils/net.h"
#include "tools/utils/conn.h"

namespace {
net_exchange airtunes_exchange;  // owned by the AirTunes thread
}

int airtunes_dispatch(media_session*, net_conn* conn) {
    net_exchange* x = &airtunes_exchange;
    net_exchange_clear(x);
    int n = read_request(conn, &x->request);
    if (n < 1) return -1;
    x->request.head[n] = '\0';

    int status = 501;
    char reply[kTextSize] = {};
    std::snprintf(reply, sizeof(reply), "RTSP/1.0 %d %s\r\n", status, status_reason(status));
    socket_write(conn->sock, reply, static_cast<int>(std::strlen(reply)));
    return status;
}

int airtunes_key_stop(media_session*, int) {
    return 0;
}
