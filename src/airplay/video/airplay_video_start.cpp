// Placeholder until video start lands: POST /play fails.
#include "airplay/video/airplay_video.h"

int airplay_video_start(int, int, net_exchange*) { return -1; }
