// Until the AirPlay requests land, every request is answered 501 Not Implemented.
#include "airplay/airplay.h"

namespace {
net_exchange airplay_exchange;  // owned by the AirPlay thread
}

int airplay_dispatch(media_session*, int sock) {
    net_exchange* x = &airplay_exchange;
    net_exchange_clear(x);
    int n = read_request(sock, &x->request);
    if (n < 1) return -1;
    x->request.head[n] = '\0';

    int status = 501;
    airplay_send_reply(sock, status, &x->reply);
    return status;
}
