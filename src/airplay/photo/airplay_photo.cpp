// Placeholders until photo display lands: no photo is ever shown.
#include "airplay/photo/airplay_photo.h"

int airplay_photo_start(net_conn*, int, net_exchange*, int) {
    return -1;
}
int airplay_photo_stop(net_exchange*) {
    return -1;
}
int airplay_photo_monitor(media_session*, int) {
    return 0;
}
