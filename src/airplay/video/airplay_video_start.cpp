// POST /play: the media URL and start position come from a text or binary property-list
// body; the URL is encoded into one query value of the player's start command.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "airplay/video/airplay_video.h"
#include "airplay/video/airplay_video_url.h"
#include "tools/decipher/bplist.h"
#include "tools/utils/log.h"
#include "tools/utils/conn.h"
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
bool read_play_body(net_conn* conn, int read_count, const net_message& request,
                    body_buffer* body) {
    switch (read_body_whole(conn, &request, read_count, kMaxPlayBody, body)) {
        case kBodyOk:
            return true;
        case kBodyTooLarge:
            log_tagged(zor_log::kRed, "POST /play body of %d bytes refused (limit %d)\n",
                       request.content_length, kMaxPlayBody);
            return false;
        case kBodyNoMemory:
            LOG_ERROR_HERE("Failed to malloc\n");
            return false;
        default:
            LOG_ERROR_HERE("Invalid socket read\n");
            return false;
    }
}

// Negative positions (and NaN, -0) start at the beginning.
float clamp_position(float position) {
    return position > 0.0f ? position : 0.0f;
}

// Text body: "Start-Position: " sets the position; the URL runs from "Content-Location: "
// to the next line feed (a CR before it stays) or to the end of the body. Returns false
// when there is no location.
bool parse_text_body(body_buffer* body, std::string* url) {
    std::string_view text(body->data(), std::strlen(body->data()));
    size_t at = text.find(kStartPositionKey);
    float position = 0.0f;
    if (at != std::string_view::npos) {
        position =
            clamp_position(std::strtof(text.data() + at + kStartPositionKey.size(), nullptr));
        log_plain("fposition: %f\n", position);
    }
    start_position.store(position);
    at = text.find(kContentLocationKey);
    if (at == std::string_view::npos) return false;
    std::string_view value = text.substr(at + kContentLocationKey.size());
    value = value.substr(0, value.find('\n'));
    *url = std::string(kProxyPrefix4000) + std::string(value);
    return true;
}

// Binary body: the location is used as it is, without the proxy.
bool parse_binary_body(body_buffer* body, std::string* url) {
    char* end = nullptr;
    float position = 0.0f;
    char* content =
        bplist_find_content(body->data(), static_cast<uint32_t>(body->size()), &end, &position);
    start_position.store(position);
    if (content == nullptr || end == nullptr) return false;
    url->assign(content, static_cast<size_t>(end - content));
    url->resize(std::strlen(url->c_str()));  // the URL ends at an embedded NUL, as text
    start_position.store(clamp_position(position));
    return true;
}

// Writes the start command for url into the exchange's command record. Returns false when
// the encoded URL would not fit the command buffer: such a URL is refused, never cut.
bool build_start_command(net_exchange* x, const std::string& url) {
    char suffix[64];
    std::snprintf(suffix, sizeof(suffix), "&arg3=show&arg4=0%f", start_position.load());
    char* command = x->player_request.body;
    size_t prefix = sizeof(kCommandPrefix) - 1;
    size_t room = sizeof(x->player_request.body) - prefix - std::strlen(suffix);
    std::memcpy(command, kCommandPrefix, prefix);
    if (!airplay_url_encode(url.c_str(), command + prefix, room)) {
        log_tagged(zor_log::kRed, "media URL of %zu bytes does not fit the start command\n",
                   url.size());
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

    std::string url;
    bool found = binary ? parse_binary_body(&body, &url) : parse_text_body(&body, &url);
    if (!found) return 0;  // nothing to play; start_position stays for the deferred seek

    bool built = build_start_command(x, url);
    start_position.store(0.0f);
    if (!built) return -1;
    cs_request_with_response(&x->player_request, x);
    if (!player_command_ok(x)) return -1;

    video_status.last_status.store(0);
    video_status.status.store(0);
    video_started.store(1);
    return 0;
}
