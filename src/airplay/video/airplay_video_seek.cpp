// POST /rate, /scrub and /stop. Pause, resume and seek go through a short-lived seek
// thread that coalesces them: a pause is held back one to two seconds so that a seek
// arriving meanwhile replaces it, and a resume after a seek is folded into the seek.
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "airplay/video/airplay_video.h"
#include "tools/utils/log.h"
#include "tools/utils/player_client.h"

namespace {

constexpr useconds_t kWaitStepUs = 10 * 1000;

// What the seek thread is asked to do. Written by the AirPlay thread (rate, scrub), the
// main thread (the monitor's deferred start seek) and the seek thread; every field is
// guarded by lock, which is held only around memory, never around a player request.
struct seek_request_record {
    std::mutex lock;
    bool busy = false;     // a seek thread exists: every request goes to it
    bool fresh = false;    // a request came after the thread took its last decision
    timeval wait_start{};  // when the current wait began
    timeval now{};         // the clock as the thread last read it
    int rate = 0;          // 0 pause, anything else play
    int seek_pending = 0;  // 1 when a seek is to be sent
    int seek_target = 0;   // seconds
};

seek_request_record seek_request;
// The seek thread's own records for its commands; only one seek thread exists at a time.
net_exchange seek_exchange;

// A number from a request converted to int by truncation toward zero; NaN gives 0 and
// values outside the int range are clamped to it.
int airplay_video_to_int(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 2147483647.0) return 2147483647;
    if (value <= -2147483648.0) return -2147483647 - 1;
    return static_cast<int>(value);
}

// The seek target as the player's time text "hh:mm:ss", two digits each; hours of 100 and
// more take the digits they need, and negative targets count as 0.
void airplay_video_seek_time_text(int target, char* out, size_t size) {
    if (target < 0) target = 0;
    std::snprintf(out, size, "%.2d:%.2d:%.2d", target / 3600, target / 60 % 60, target % 60);
}

// Caller holds seek_request.lock.
void reset_request() {
    seek_request.wait_start = timeval{};
    seek_request.now = timeval{};
    seek_request.rate = 0;
    seek_request.seek_pending = 0;
    seek_request.seek_target = 0;
}

// The wait is over once the clock's seconds exceed those of wait_start by more than one:
// between one and two seconds. A clock that went back restarts the wait.
// Caller holds seek_request.lock.
bool wait_over() {
    gettimeofday(&seek_request.now, nullptr);
    if (seek_request.now.tv_sec < seek_request.wait_start.tv_sec) {
        seek_request.wait_start = seek_request.now;
        return false;
    }
    return seek_request.now.tv_sec - seek_request.wait_start.tv_sec > 1;
}

// Sleeps in short steps while the request is a pause, until the wait is over or (when
// seek_ends_it) a seek is pending.
void hold_while_paused(bool seek_ends_it) {
    {
        std::lock_guard<std::mutex> guard(seek_request.lock);
        gettimeofday(&seek_request.wait_start, nullptr);
    }
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(seek_request.lock);
            if (seek_request.rate != 0) return;
            if (seek_ends_it && seek_request.seek_pending == 1) return;
            if (wait_over()) return;
        }
        usleep(kWaitStepUs);
    }
}

// The one command of a round, taken under the lock: the seek if one is pending (a pause
// before it is dropped, a resume after it folded into it), else pause or resume.
void decide_command(char* target, size_t size) {
    std::lock_guard<std::mutex> guard(seek_request.lock);
    seek_request.fresh = false;
    if (seek_request.seek_pending == 1) {
        char time[64];
        airplay_video_seek_time_text(seek_request.seek_target, time, sizeof(time));
        std::snprintf(target, size, "/playback?arg0=set_time_seek_vod&arg1=%s", time);
        seek_request.seek_pending = 0;
    } else {
        std::snprintf(
            target, size, "%s",
            seek_request.rate != 0 ? "/playback?arg0=resume_vod" : "/playback?arg0=pause_vod");
    }
}

// Whether the thread is done: nothing came while it was sending. Otherwise it takes the
// newcomer itself, so that there is never a second thread and the player hears the
// commands in the order they were decided.
bool round_done() {
    std::lock_guard<std::mutex> guard(seek_request.lock);
    if (seek_request.fresh) return false;
    seek_request.busy = false;
    return true;
}

void* airplay_video_seek_thread(void*) {
    do {
        hold_while_paused(true);
        bool seek = false;
        {
            std::lock_guard<std::mutex> guard(seek_request.lock);
            seek = seek_request.seek_pending == 1;
        }
        if (seek) hold_while_paused(false);
        char target[128];
        decide_command(target, sizeof(target));
        player_command(&seek_exchange, target);
    } while (!round_done());
    return nullptr;
}

// Starts the seek thread detached: it ends by itself once nothing is left to send.
// Caller holds seek_request.lock and has filled the request.
void start_seek_thread() {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, airplay_video_seek_thread, nullptr);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        log_tagged(zor_log::kRed, "unable to start the seek thread (%d)\n", rc);
        return;
    }
    seek_request.busy = true;
}

// A number from the request's header text after key, as a double; false when key is absent.
bool header_number(net_exchange* x, const char* key, double* value) {
    const char* at = std::strstr(x->request.head, key);
    if (at == nullptr) return false;
    *value = std::strtod(at + std::strlen(key), nullptr);
    return true;
}

void clear_player_records(net_exchange* x) {
    net_message_clear(&x->player_request);
    net_message_clear(&x->player_reply);
}

}  // namespace

int airplay_video_rate(net_exchange* x) {
    double value = 0.0;
    if (!header_number(x, "?value=", &value)) return -1;
    int rate = airplay_video_to_int(value + 0.5);
    clear_player_records(x);

    std::lock_guard<std::mutex> guard(seek_request.lock);
    if (seek_request.busy) {
        seek_request.rate = rate;
        seek_request.fresh = true;
        gettimeofday(&seek_request.wait_start, nullptr);  // a new rate restarts the wait
        return 0;
    }
    reset_request();
    seek_request.rate = rate;
    start_seek_thread();
    return 0;
}

int airplay_video_scrub(net_exchange* x) {
    video_status_record vs = video_record_copy().video_status;
    if (vs.status != 1 || vs.seek_enabled == 0) return 0;
    clear_player_records(x);
    double value = 0.0;
    if (!header_number(x, "?position=", &value)) return -1;
    return airplay_video_seek(airplay_video_to_int(value));
}

int airplay_video_seek(int target) {
    bool singular = false;
    {
        std::lock_guard<std::mutex> guard(seek_request.lock);
        if (seek_request.busy) {
            seek_request.seek_target = target;
            seek_request.seek_pending = 1;
            seek_request.fresh = true;
            return 0;
        }
        reset_request();
        seek_request.rate = 1;
        seek_request.seek_target = target;
        seek_request.seek_pending = 1;
        start_seek_thread();
        singular = seek_request.busy;
    }
    if (singular) log_plain("sending seek singular command\n");
    return 0;
}

int airplay_video_stop(net_exchange* x) {
    std::memset(x->reply.body, 0, sizeof(x->reply.body));  // the reply to the sender has no body
    x->reply.content_length = 0;
    if (!player_command(x, "/playback?arg0=stop_vod")) return -1;
    video_record_change([](video_record& r) { r.video_status.status = 4; });
    return 0;
}
