// Placeholders until seek, rate, scrub and stop land.
#include "airplay/video/airplay_video.h"

int airplay_video_rate(net_exchange*) { return -1; }
int airplay_video_scrub(net_exchange*) { return -1; }
int airplay_video_stop(net_exchange*) { return -1; }
int airplay_video_seek(net_message*, net_exchange*, int) { return 0; }
