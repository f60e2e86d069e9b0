// The video state shared by the monitor and the handlers.
#include "airplay/video/airplay_video.h"

video_status_record video_status = {4, 4, 0, 0, 0};
std::atomic<float> start_position{0.0f};
std::atomic<int> video_started{0};
