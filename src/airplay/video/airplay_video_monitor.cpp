// The video monitor: follows the player's video state on every pass of the main loop and
// tells the sender about changes.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "airplay/video/airplay_video.h"
#include "tools/utils/log.h"
#include "tools/utils/player_client.h"

namespace {

constexpr const char kVodInfo[] = "/playback?arg0=get_current_vod_info";
constexpr int kStarted = 0, kPlaying = 1, kBuffering = 2, kPaused = 3, kStopped = 4;
constexpr size_t kMaxDigits = 31;  // the conversion buffer holds 32 bytes
constexpr unsigned kStartSeekDelaySeconds = 3;

// The monitor's own exchange, used on the main thread only.
net_exchange monitor_exchange;

const char* state_text(int status) {
    switch (status) {
        case kBuffering:
            return "loading";
        case kPlaying:
            return "playing";
        case kPaused:
            return "paused";
        default:
            return "stopped";
    }
}

bool contains(std::string_view text, std::string_view needle) {
    return text.find(needle) != std::string_view::npos;
}

// A leading decimal integer: blanks and a sign allowed, stops at the first non-digit,
// 0 without digits; clamped to the int range instead of overflowing.
int leading_int(const char* s) {
    long long value = std::strtoll(s, nullptr, 10);
    if (value > 0x7fffffffLL) return 0x7fffffff;
    if (value < -0x7fffffffLL - 1) return -0x7fffffff - 1;
    return static_cast<int>(value);
}

// The number after tag up to the next "<": 0 without the tag, unchanged without a "<".
void parse_number(std::string_view text, std::string_view tag, int* out) {
    size_t at = text.find(tag);
    if (at == std::string_view::npos) {
        *out = 0;
        return;
    }
    std::string_view rest = text.substr(at + tag.size());
    size_t end = rest.find('<');
    if (end == std::string_view::npos) return;
    char digits[kMaxDigits + 1] = {};
    std::string_view number = rest.substr(0, end < kMaxDigits ? end : kMaxDigits);
    std::memcpy(digits, number.data(), number.size());
    *out = leading_int(digits);
}

int parsed_status(std::string_view text) {
    if (contains(text, "<currentStatus>play<")) return kPlaying;
    if (contains(text, "<currentStatus>pause<")) return kPaused;
    if (contains(text, "<currentStatus>stop<")) return kStopped;
    if (contains(text, "<currentStatus>buffering<")) return kBuffering;
    return kStopped;
}

// What one poll decided; carried out once the record's lock is released.
struct poll_outcome {
    int status = kStopped;
    bool special = false;         // the player still shows the stop from before the start
    const char* event = nullptr;  // the state to tell the sender
    int seek_target = -1;         // the deferred start seek, in seconds
};

// A successful query: report a change of state, unless the player still shows the stop
// from before the start. Then the deferred start seek: a POST /play that carried a start
// position the player could not take with its start command is sought there once the
// player says the media is seekable.
void take_reply(video_record& r, const char* reply, bool reverse, poll_outcome* out) {
    video_status_record& vs = r.video_status;
    airplay_video_parse_info(reply, &vs);
    if (vs.last_status == kStarted && vs.status == kStopped) {
        out->special = true;
    } else if (vs.status != kStarted && vs.status != vs.last_status && reverse) {
        out->event = state_text(vs.status);
        vs.last_status = vs.status;
    }
    float target = r.start_position * 100.0f;
    if (vs.seek_enabled != 0 && target > 5.0f) {
        // Truncation toward zero; a target beyond the int range is clamped, never undefined.
        out->seek_target = target < 2147483520.0f ? static_cast<int>(target) : 0x7fffffff;
        r.start_position = 0.0f;
    }
}

// The player refused the query: the video has gone, unless it never got going.
void take_refusal(video_record& r, bool reverse, poll_outcome* out) {
    video_status_record& vs = r.video_status;
    if (vs.last_status == kPlaying || vs.last_status == kPaused) {
        if (!reverse) return;
        r.video_started = 0;
        vs.status = kStopped;
        vs.last_status = kStopped;
        out->event = "stopped";
    } else if (vs.status != kStarted) {
        vs.status = kStopped;
        vs.last_status = kStopped;
    }
}

}  // namespace

void airplay_video_init() {
    video_record_change([](video_record& r) {
        r.video_status.status = kStopped;
        r.video_status.last_status = kStopped;
    });
}

void airplay_video_parse_info(const char* text, video_status_record* vs) {
    if (text == nullptr) return;
    std::string_view t(text);
    vs->status = parsed_status(t);
    vs->seek_enabled = contains(t, "<seekEnable>true<") ? 1 : 0;
    parse_number(t, "<totalTime>", &vs->duration);
    parse_number(t, "<currentTime>", &vs->position);
}

int airplay_video_monitor(media_session* session) {
    airplay_events_flush(session);
    net_exchange* x = &monitor_exchange;
    x->player_request.body[0] = '\0';
    x->player_reply.body[0] = '\0';
    video_record before = video_record_copy();
    if (before.video_started == 0) return kStopped;

    bool accepted = player_command(x, kVodInfo);
    bool reverse = airplay_events_connected(session);
    poll_outcome out = video_record_change([&](video_record& r) {
        poll_outcome o;
        // An empty reply changes nothing; a reply to a query sent before the latest start
        // speaks of the video before it.
        if (x->player_reply.body[0] != '\0' && r.starts == before.starts && r.video_started) {
            if (accepted)
                take_reply(r, x->player_reply.body, reverse, &o);
            else
                take_refusal(r, reverse, &o);
        }
        o.status = r.video_status.status;
        return o;
    });
    if (out.special) log_plain("special handling case....");
    if (out.event != nullptr) send_playback_event_xml(session, out.event);
    if (out.seek_target >= 0) {
        // The player settles after it first reports the media seekable.
        sleep(kStartSeekDelaySeconds);
        airplay_video_seek(out.seek_target);
    }
    return out.status;
}
