#include "tools/utils/request.h"

#include <cstring>

void net_message_clear(net_message* msg) {
    std::memset(msg, 0, sizeof(*msg));
}

void net_exchange_clear(net_exchange* x) {
    std::memset(x, 0, sizeof(*x));
}

char* find_bounded(char* buffer, const char* needle, size_t size) {
    if (buffer == nullptr || size == 0) return nullptr;
    char saved = buffer[size - 1];
    buffer[size - 1] = '\0';
    char* match = std::strstr(buffer, needle);
    buffer[size - 1] = saved;
    return match;
}

const char* status_reason(int status) {
    if (status == 200) return "OK";
    if (status == 501) return "Not Implemented";
    if (status == 101) return "Switching Protocols";
    return "Unknown";
}
