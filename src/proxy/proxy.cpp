// The video proxy (TCP 4000): the box's player fetches the sender's media through it. Each
// request becomes one upstream request on a new connection to the media server, whose
// response is relayed as far as its Content-Length goes.
#include "proxy/proxy.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

#include "proxy/proxy_relay.h"
#include "proxy/proxy_request.h"
#include "tools/utils/log.h"
#include "tools/utils/net.h"

namespace {

constexpr int kConnectTimeoutSeconds = 5;

bool in_net8(uint32_t addr, uint32_t first_octet) {
    return (ntohl(addr) >> 24) == first_octet;
}

int bad_gateway(const net_conn* conn) {
    static constexpr char kReply[] = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n";
    socket_write(conn->sock, kReply, static_cast<int>(sizeof(kReply) - 1));
    return -1;
}

// Resolves host to its first IPv4 address and connects to it. Loopback and unspecified
// targets are refused, so a sender cannot make the proxy reach the box's own services.
// Returns the socket, or -1 (logged).
int open_upstream(const char* host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) {
        log_tagged(zor_log::kRed, "proxy: cannot resolve %s\n", host);
        return -1;
    }
    uint32_t addr = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(found);
    if (in_net8(addr, 127) || in_net8(addr, 0)) {
        log_tagged(zor_log::kRed, "proxy: target %s:%d refused (loopback or unspecified)\n", host,
                   port);
        return -1;
    }
    int sock = connect_to(addr, static_cast<uint16_t>(port), kConnectTimeoutSeconds);
    if (sock < 0) log_tagged(zor_log::kRed, "proxy: cannot connect to %s:%d\n", host, port);
    return sock;
}

class socket_owner {
   public:
    explicit socket_owner(int fd) : fd_(fd) {}
    ~socket_owner() {
        if (fd_ >= 0) close(fd_);
    }
    socket_owner(const socket_owner&) = delete;
    socket_owner& operator=(const socket_owner&) = delete;
    int get() const { return fd_; }

   private:
    int fd_;
};

}  // namespace

bool proxy_peer_allowed(uint32_t peer_addr) {
    return in_net8(peer_addr, 127);
}

int proxy_handle_request(net_conn* conn) {
    net_message request;
    net_message_clear(&request);
    int n = read_request(conn, &request);
    if (n <= 0) return -1;
    std::string_view head(request.head, strnlen(request.head, sizeof(request.head)));
    if (head.find("airplay") != std::string_view::npos) add_header_line(request.head, "Accept: */*");

    upstream_request up;
    if (!proxy_build_upstream(request, n, &up)) return bad_gateway(conn);
    socket_owner upstream(open_upstream(up.host, up.port));
    if (upstream.get() < 0) return bad_gateway(conn);
    if (socket_write(upstream.get(), up.text.data(), up.length) != up.length) return 0;
    return proxy_relay_response(upstream.get(), conn->sock);
}
