// Placeholder until the monitor lands: the daemon reports no video.
#include "airplay/video/airplay_video.h"

void airplay_video_init() {
    video_status.status.store(4);
    video_status.last_status.store(4);
}

int airplay_video_monitor(media_session*) { return 4; }
