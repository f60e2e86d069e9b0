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
// The deferred start seek's records: the seek thread uses them after the monitor has
// returned and while its next poll already fills monitor_exchange, so they live apart.
net_exchange start_seek_exchange;

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
void parse_number(std::string_view text, std::string_view tag, std::atomic<int>* out) {
    size_t at = text.find(tag);
    if (at == std::string_view::npos) {
        out->store(0);
        return;
    }
    std::string_view rest = text.substr(at + tag.size());
    size_t end = rest.find('<');
    if (end == std::string_view::npos) return;
    char digits[kMaxDigits + 1] = {};
    std::string_view number = rest.substr(0, end < kMaxDigits ? end : kMaxDigits);
    std::memcpy(digits, number.data(), number.size());
    out->store(leading_int(digits));
}

int parsed_status(std::string_view text) {
    if (contains(text, "<currentStatus>play<")) return kPlaying;
    if (contains(text, "<currentStatus>pause<")) return kPaused;
    if (contains(text, "<currentStatus>stop<")) return kStopped;
    if (contains(text, "<currentStatus>buffering<")) return kBuffering;
    return kStopped;
}

bool has_event_socket(const media_session* session) {
    return session->event_socket.load() != 0;
}

// A successful query: report a change of state, unless the player still shows the stop
// from before the start.
void report_change(media_session* session) {
    int status = video_status.status.load();
    int last = video_status.last_status.load();
    if (last == kStarted && status == kStopped) {
        log_plain("special handling case....");
        return;
    }
    if (status == kStarted || status == last || !has_event_socket(session)) return;
    send_event_to_sender(session, state_text(status));
    video_status.last_status.store(status);
}

// A POST /play that carried a start position the player could not take with its start
// command: seek there once the player says the media is seekable.
void deferred_start_seek() {
    float target = start_position.load() * 100.0f;
    if (video_status.seek_enabled.load() == 0 || !(target > 5.0f)) return;
    sleep(kStartSeekDelaySeconds);
    net_message_clear(&start_seek_exchange.player_request);
    net_message_clear(&start_seek_exchange.player_reply);
    // Truncation toward zero; a target beyond the int range is clamped, never undefined.
    int seconds = target < 2147483520.0f ? static_cast<int>(target) : 0x7fffffff;
    airplay_video_seek(&start_seek_exchange.player_request, &start_seek_exchange, seconds);
    start_position.store(0.0f);
}

// The player refused the query: the video has gone, unless it never got going.
void handle_refusal(media_session* session) {
    int last = video_status.last_status.load();
    if (last == kPlaying || last == kPaused) {
        if (!has_event_socket(session)) return;
        video_started.store(0);
        video_status.status.store(kStopped);
        send_event_to_sender(session, "stopped");
        video_status.last_status.store(kStopped);
    } else if (video_status.status.load() != kStarted) {
        video_status.status.store(kStopped);
        video_status.last_status.store(kStopped);
    }
}

}  // namespace

void airplay_video_init() {
    video_status.status.store(kStopped);
    video_status.last_status.store(kStopped);
}

void airplay_video_parse_info(const char* text, video_status_record* vs) {
    if (text == nullptr) return;
    std::string_view t(text);
    vs->status.store(parsed_status(t));
    vs->seek_enabled.store(contains(t, "<seekEnable>true<") ? 1 : 0);
    parse_number(t, "<totalTime>", &vs->duration);
    parse_number(t, "<currentTime>", &vs->position);
}

int airplay_video_monitor(media_session* session) {
    net_exchange* x = &monitor_exchange;
    x->player_request.body[0] = '\0';
    x->player_reply.body[0] = '\0';
    if (video_started.load() == 0) return kStopped;

    bool accepted = player_command(x, kVodInfo);
    if (x->player_reply.body[0] == '\0') return video_status.status.load();
    if (accepted) {
        airplay_video_parse_info(x->player_reply.body, &video_status);
        report_change(session);
        deferred_start_seek();
    } else {
        handle_refusal(session);
    }
    return video_status.status.load();
}
