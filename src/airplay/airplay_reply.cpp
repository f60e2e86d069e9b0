#include <cstdio>
#include <cstring>
#include <ctime>

#include "airplay/airplay.h"
#include "tools/utils/net.h"

namespace {

void format_date(char* out, size_t size) {
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    if (strftime(out, size, "%a, %d %b %Y %X %Z", &local) == 0) out[0] = '\0';
}

}  // namespace

int airplay_send_reply(int sock, int status, const net_message* reply) {
    char date[128] = {};
    format_date(date, sizeof(date));
    const char* reason = status_reason(status);
    const char* head = reply->head;
    int body_len = static_cast<int>(strnlen(reply->body, sizeof(reply->body) - 1));

    char text[kTextSize] = {};
    int n;
    if (status == 101) {
        n = std::snprintf(text, sizeof(text),
                          "HTTP/1.1 %d %s\r\nDate: %s\r\nContent-Length: 0\r\n%s\r\n\r\n", status,
                          reason, date, head);
    } else if (head[0] != '\0') {
        n = std::snprintf(text, sizeof(text),
                          "HTTP/1.1 %d %s\r\nDate: %s\r\n%s\r\nContent-Length: %d\r\n\r\n", status,
                          reason, date, head, body_len);
    } else {
        n = std::snprintf(text, sizeof(text),
                          "HTTP/1.1 %d %s\r\nDate: %s\r\nContent-Length: %d\r\n\r\n", status,
                          reason, date, body_len);
    }
    if (n < 0 || n >= static_cast<int>(sizeof(text))) return 0;
    if (body_len > 0) {
        // A body that would not fit the reply is never cut silently: refuse to send it.
        if (n + body_len >= static_cast<int>(sizeof(text))) return 0;
        std::memcpy(text + n, reply->body, body_len);
        n += body_len;
    }
    return socket_write(sock, text, n);
}
