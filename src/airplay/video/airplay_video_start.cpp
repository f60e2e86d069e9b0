// POST /play: the media URL and start position come from a text or binary property-list
// body; the URL is encoded into one query value of the player's start command.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "airplay/video/airplay_video.h"
#include "airplay/video/airplay_video_url.h"
#include "tools/decipher/bplist.h"
#include "tools/utils/conn.h"
#include "tools/utils/log.h"
#include "tools/utils/player_client.h"

namespace {

// A POST /play body is a few hundred bytes; anything beyond this is refused unread.
constexpr int kMaxPlayBody = 64 * 1024;

constexpr char kCommandPrefix[] =
    PLAYER_URL_PREFIX "/playback?arg0=start_vod&arg1=AirPlayVideo&arg2=";
constexpr char kBinaryType[] = "application/x-apple-binary-plist";
constexpr char kTextType[] = "Content-Type: text/parameters";
constexpr std::string_view kStartPositionKey = "Start-Position: ";
constexpr std::string_view kContentLocationKey = "Content-Location: ";

bool head_contains(const net_message& request, const char* needle) {
    std::string_view head(request.head, strnlen(request.head, sizeof(request.head)));
    return head.find(needle) != std::string_view::npos;
}

// The whole body, terminated so it can be scanned as text. The bytes that came with the
// header block are used first; bytes past Content-Length (a pipelined request) are never
// counted as body.
bool read_play_body(net_conn* conn, int read_count, const net_message& request, body_buffer* body) {
    switch (read_body_whole(conn, &request, read_count, kMaxPlayBody, body)) {
        case kBodyOk:
            return true;
        case kBodyTooLarge:
            log_tagged(zor_log::kRed, "POST /play body of %d bytes refused (limit %d)\n",
                       request.content_length, kMaxPlayBody);
            return false;
        case kBodyNoMemory:
            LOG_ERROR_NOBLANK("airplay_video_start", "Failed to malloc\n");
            return false;
        default:
            LOG_ERROR_NOBLANK("airplay_video_start", "Invalid socket read\n");
            return false;
    }
}

// Negative positions (and NaN, -0) start at the beginning.
float clamp_position(float position) {
    return position > 0.0f ? position : 0.0f;
}

// The media URL as found in the body: an optional prefix, then the location's bytes.
struct media_url {
    const char* prefix = "";
    std::string_view location;
};

// Text body: "Start-Position: " sets the position; the URL runs from "Content-Location: "
// to the next line feed (a CR before it stays) or to the end of the body, and goes through
// the proxy. Returns false when there is no location.
bool parse_text_body(body_buffer* body, media_url* url, float* position) {
    std::string_view text(body->data(), std::strlen(body->data()));
    size_t at = text.find(kStartPositionKey);
    *position = 0.0f;
    if (at != std::string_view::npos) {
        *position =
            clamp_position(std::strtof(text.data() + at + kStartPositionKey.size(), nullptr));
        log_plain("fposition: %f\n", *position);
    }
    at = text.find(kContentLocationKey);
    if (at == std::string_view::npos) return false;
    std::string_view value = text.substr(at + kContentLocationKey.size());
    url->prefix = kProxyPrefix4000;
    url->location = value.substr(0, value.find('\n'));
    return true;
}

// Binary body: the location is used as it is, without the proxy; it ends at an embedded
// NUL, as text does.
bool parse_binary_body(body_buffer* body, media_url* url, float* position) {
    char* end = nullptr;
    char* content =
        bplist_find_content(body->data(), static_cast<uint32_t>(body->size()), &end, position);
    if (content == nullptr || end == nullptr) return false;
    *position = clamp_position(*position);
    url->location = std::string_view(content, strnlen(content, static_cast<size_t>(end - content)));
    return true;
}

// Writes the start command for url into the exchange's command record. Returns false when
// the encoded URL would not fit the command buffer: such a URL is refused, never cut.
bool build_start_command(net_exchange* x, const media_url& url, float position) {
    char plain[kTextSize];  // prefix and location, terminated
    size_t prefix_len = std::strlen(url.prefix);
    if (prefix_len + url.location.size() >= sizeof(plain)) {
        log_tagged(zor_log::kRed, "media URL of %zu bytes does not fit the start command\n",
                   prefix_len + url.location.size());
        return false;
    }
    std::memcpy(plain, url.prefix, prefix_len);
    std::memcpy(plain + prefix_len, url.location.data(), url.location.size());
    plain[prefix_len + url.location.size()] = '\0';

    char suffix[64];
    std::snprintf(suffix, sizeof(suffix), "&arg3=show&arg4=0%f", position);
    char* command = x->player_request.body;
    size_t prefix = sizeof(kCommandPrefix) - 1;
    size_t room = sizeof(x->player_request.body) - prefix - std::strlen(suffix);
    std::memcpy(command, kCommandPrefix, prefix);
    if (!airplay_url_encode(plain, command + prefix, room)) {
        log_tagged(zor_log::kRed, "media URL of %zu bytes does not fit the start command\n",
                   prefix_len + url.location.size());
        return false;
    }
    std::strcat(command, suffix);
    return true;
}

}  // namespace

int airplay_video_start(net_conn* conn, int read_count, net_exchange* x) {
    net_message_clear(&x->player_request);
    net_message_clear(&x->player_reply);

    bool binary = head_contains(x->request, kBinaryType);
    if (!binary && !head_contains(x->request, kTextType)) return -1;

    body_buffer body;
    if (!read_play_body(conn, read_count, x->request, &body)) return -1;

    media_url url;
    float position = 0.0f;
    bool found = binary ? parse_binary_body(&body, &url, &position)
                        : parse_text_body(&body, &url, &position);
    // Without a location nothing plays; the position waits for the deferred start seek.
    // With one, the start command carries it.
    video_record_change([&](video_record& r) { r.start_position = found ? 0.0f : position; });
    if (!found) return 0;

    if (!build_start_command(x, url, position)) return -1;
    cs_request_with_response(&x->player_request, x);
    if (!player_command_ok(x)) return -1;

    video_record_change([](video_record& r) {
        r.video_status.last_status = 0;
        r.video_status.status = 0;
        r.video_started = 1;
        ++r.starts;
    });
    return 0;
}
