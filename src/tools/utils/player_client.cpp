#include "tools/utils/player_client.h"

#include <netdb.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tools/utils/log.h"
#include "tools/utils/net.h"

namespace {

constexpr int kReplyLimit = kTextSize - 1;

// The pieces of "scheme://host:port/target" that the request needs.
struct command_url {
    std::string_view host_port;  // between "//" and the target, as written
    std::string_view target;     // from the "/" after the ":" to the end
    uint16_t port;
};

bool split_url(std::string_view url, command_url* out) {
    size_t slashes = url.find("//");
    if (slashes == std::string_view::npos) return false;
    size_t colon = url.find(':', slashes);
    if (colon == std::string_view::npos) return false;
    size_t slash = url.find('/', colon);
    if (slash == std::string_view::npos) return false;
    unsigned port = 0;
    for (size_t i = colon + 1; i < url.size() && url[i] >= '0' && url[i] <= '9' && port < 65536;
         ++i)
        port = port * 10 + static_cast<unsigned>(url[i] - '0');
    out->port = static_cast<uint16_t>(port);
    out->host_port = url.substr(slashes + 2, slash - slashes - 2);
    out->target = url.substr(slash);
    return true;
}

// The service is always reached at the address of "localhost": the host in the URL only
// fills the Host header. Reentrant, since four threads send commands.
bool resolve_localhost(const char* name, uint32_t* addr) {
    hostent entry{};
    hostent* result = nullptr;
    std::array<char, 2048> scratch{};
    int err = 0;
    if (gethostbyname_r(name, &entry, scratch.data(), scratch.size(), &result, &err) != 0 ||
        result == nullptr || result->h_addrtype != AF_INET || result->h_addr_list[0] == nullptr) {
        return false;
    }
    std::memcpy(addr, result->h_addr_list[0], sizeof(*addr));
    return true;
}

}  // namespace

int cs_request_with_response(net_message* request, net_exchange* x) {
    std::array<char, kTextSize> url{};
    std::array<char, kTextSize> host{};
    std::memcpy(url.data(), request->body, strnlen(request->body, kTextSize - 1));
    std::snprintf(host.data(), host.size(), "%s", "localhost");

    command_url parts{};
    if (!split_url(url.data(), &parts)) return -1;

    uint32_t addr = 0;
    if (!resolve_localhost(host.data(), &addr)) {
        LOG_ERROR_NOBLANK("cs_request_with_response", "Failed gethostbyname %s\n", host.data());
        return -1;
    }

    std::snprintf(request->body, sizeof(request->body),
                  "GET %.*s HTTP/1.1\r\nUser-Agent: Wget/1.11.2\r\nAccept: */*\r\n"
                  "Host: %.*s\r\nConnection: Keep-Alive\r\n\r\n",
                  static_cast<int>(parts.target.size()), parts.target.data(),
                  static_cast<int>(parts.host_port.size()), parts.host_port.data());

    int sock = connect_to(addr, parts.port, kPlayerTimeoutSeconds);
    if (sock < 0) return -1;

    int length = static_cast<int>(std::strlen(request->body));
    if (socket_write(sock, request->body, length) == 0) {
        close(sock);
        return 0;
    }

    net_message* reply = &x->player_reply;
    reply->content_length = 0;
    net_deadline deadline = net_clock::now() + std::chrono::seconds(kPlayerTimeoutSeconds);
    int got = socket_read(sock, reply->body, kReplyLimit, deadline);
    // The service closes the connection after its reply, so a short reply is whole only if
    // the stream has ended. socket_read gives up on its deadline alone, so past it a second,
    // immediate read says which: 0 is the end of the stream, a failure a service still
    // talking, which never finished answering and counts as one that said nothing.
    if (got > 0 && got < kReplyLimit && net_clock::now() >= deadline) {
        char more = 0;
        if (socket_read(sock, &more, 1, net_clock::now()) < 0) got = 0;
    }
    if (got <= 0)
        reply->body[0] = '\0';
    else
        reply->body[got] = '\0';
    reply->content_length = got;
    close(sock);
    return 0;
}

bool player_command_ok(const net_exchange* x) {
    const net_message& reply = x->player_reply;
    bool empty = reply.content_length == 0 && reply.body[0] == '\0';
    return !empty && std::strstr(reply.body, "<returnValue>0<") != nullptr;
}

bool player_command(net_exchange* x, const char* target) {
    net_message_clear(&x->player_request);
    net_message_clear(&x->player_reply);
    std::snprintf(x->player_request.body, sizeof(x->player_request.body), "%s%s", PLAYER_URL_PREFIX,
                  target);
    cs_request_with_response(&x->player_request, x);
    return player_command_ok(x);
}
