// Until the relay lands the proxy refuses every request and closes the connection.
#include "proxy/proxy.h"

#include <cstring>

#include "tools/utils/net.h"
#include "tools/utils/conn.h"

namespace {
net_message proxy_request;  // owned by the proxy thread
}

int proxy_handle_request(net_conn* conn) {
    net_message_clear(&proxy_request);
    if (read_request(conn, &proxy_request) < 1) return -1;
    static constexpr char kReply[] =
        "HTTP/1.1 501 Not Implemented\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    socket_write(conn->sock, kReply, static_cast<int>(std::strlen(kReply)));
    return -1;
}
