// Placeholders until the video handlers land: the daemon reports no video.
#include "airplay/video/airplay_video.h"

video_status_record video_status = {4, 4, 0, 0, 0};
std::atomic<float> start_position{0.0f};
std::atomic<int> video_started{0};

void airplay_video_init() {
    video_status.status.store(4);
    video_status.last_status.store(4);
}

int airplay_video_monitor(media_session*) { return 4; }

int airplay_video_start(int, int, net_exchange*) { return -1; }
int airplay_video_rate(net_exchange*) { return -1; }
int airplay_video_scrub(net_exchange*) { return -1; }
int airplay_video_stop(net_exchange*) { return -1; }
int airplay_video_seek(net_message*, net_exchange*, int) { return 0; }
