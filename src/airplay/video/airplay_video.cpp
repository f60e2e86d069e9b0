// The video record shared by the monitor and the handlers.
#include "airplay/video/airplay_video.h"

namespace video_record_detail {

std::mutex& lock() {
    static std::mutex video_lock;
    return video_lock;
}

video_record& record() {
    static video_record video;
    return video;
}

}  // namespace video_record_detail

video_record video_record_copy() {
    return video_record_change([](const video_record& r) { return r; });
}
