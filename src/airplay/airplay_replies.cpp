#include "airplay/airplay_replies.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "airplay/video/airplay_video.h"
#include "tools/decipher/address.h"
#include "tools/utils/log.h"

namespace {

constexpr const char kPlistType[] = "Content-Type: text/x-apple-plist+xml";
constexpr const char kBinaryPlistType[] = "Content-Type: application/x-apple-binary-plist";
constexpr const char kSessionHeader[] = "X-Apple-Session-ID:";
// The id starts after the name, its colon and one blank, whatever the sender put there.
constexpr size_t kSessionIdOffset = 20;
constexpr size_t kSessionIdLength = 36;
constexpr const char kNoSession[] = "00000000-0000-0000-0000-000000000000";
constexpr const char kLogFence[] = "[][][][][][][][][][][][][][][][][][][][][][]";

void set_head(net_exchange* x, const char* line) {
    std::snprintf(x->reply.head, sizeof(x->reply.head), "%s", line);
}

// The header text as read; dispatch terminated it, and the bound keeps us inside head.
std::string_view request_text(const net_exchange* x) {
    return {x->request.head, strnlen(x->request.head, sizeof(x->request.head) - 1)};
}

void take_session_id(media_session* session, std::string_view text) {
    size_t at = text.find(kSessionHeader);
    if (at == std::string_view::npos) return;
    // A header block may end within the 20 characters after the name: the id is then empty.
    size_t from = std::min(at + kSessionIdOffset, text.size());
    std::string_view id = text.substr(from, kSessionIdLength);
    std::memcpy(session->session_id, id.data(), id.size());
    session->session_id[id.size()] = '\0';
}

void log_property_body(const char* body) {
    log_plain("%s", kLogFence);
    log_text(body);
    log_plain("%s", kLogFence);
}

}  // namespace

void build_server_info(media_session* session, net_exchange* x) {
    take_session_id(session, request_text(x));
    set_head(x, kPlistType);
    std::snprintf(x->reply.body, sizeof(x->reply.body),
                  PLIST_HEAD
                  "<dict>\r\n"
                  "<key>deviceid</key>\r\n"
                  "<string>%s</string>\r\n"
                  "<key>features</key>\r\n"
                  "<integer>119</integer>\r\n"
                  "<key>model</key>\r\n"
                  "<string>AppleTV2,1</string>\r\n"
                  "<key>protovers</key>\r\n"
                  "<string>1.0</string>\r\n"
                  "<key>srcvers</key>\r\n"
                  "<string>120.2</string>\r\n"
                  "</dict>\r\n"
                  "</plist>\r\n",
                  read_mac_address());
}

void build_playback_info(net_exchange* x) {
    video_status_record vs = video_record_copy().video_status;
    double duration = vs.duration;
    double position = vs.position;
    int rate = vs.status == 1 ? 1 : 0;
    set_head(x, kPlistType);
    std::snprintf(x->reply.body, sizeof(x->reply.body),
                  PLIST_HEAD
                  "<dict>\r\n"
                  "<key>duration</key> <real>%f</real>\r\n"
                  "<key>loadedTimeRanges</key>\r\n"
                  "<array>\r\n"
                  "<dict>\r\n"
                  "<key>duration</key> <real>%f</real>\r\n"
                  "<key>start</key> <real>0.0</real>\r\n"
                  "</dict>\r\n"
                  "</array>\r\n"
                  "<key>playbackBufferEmpty</key> <true/>\r\n"
                  "<key>playbackBufferFull</key> <false/>\r\n"
                  "<key>playbackLikelyToKeepUp</key> <true/>\r\n"
                  "<key>position</key> <real>%f</real>\r\n"
                  "<key>rate</key> <real>%d</real>\r\n"
                  "<key>readyToPlay</key> <true/>\r\n"
                  "<key>seekableTimeRanges</key>\r\n"
                  "<array>\r\n"
                  "<dict>\r\n"
                  "<key>duration</key>\r\n"
                  "<real>%f</real>\r\n"
                  "<key>start</key>\r\n"
                  "<real>0.0</real>\r\n"
                  "</dict>\r\n"
                  "</array>\r\n"
                  "</dict>\r\n"
                  "</plist>\r\n",
                  duration, duration, position, rate, duration);
}

void build_scrub_reply(net_exchange* x) {
    video_status_record vs = video_record_copy().video_status;
    double duration = vs.duration;
    double position = vs.position;
    set_head(x, "Content-Type: text/parameters");
    std::snprintf(x->reply.body, sizeof(x->reply.body), "duration: %f\r\nposition: %f\r\n",
                  duration, position);
}

void build_access_log(const media_session* session, net_exchange* x) {
    video_status_record vs = video_record_copy().video_status;
    int position = vs.position;
    int duration = vs.duration;
    // The player's numbers are arbitrary ints: the arithmetic must not overflow.
    long long ahead = static_cast<long long>(position) + 5;
    int downloaded = ahead < duration ? static_cast<int>(ahead) : duration;
    int bytes = static_cast<int>(static_cast<long long>(position) * 512);
    const char* guid = session->session_id[0] != '\0' ? session->session_id : kNoSession;
    time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);

    set_head(x, kBinaryPlistType);
    std::snprintf(x->reply.body, sizeof(x->reply.body),
                  "<BINARY PLIST DATA>\r\n" PLIST_HEAD
                  "<dict>\r\n"
                  "<key>errorCode</key>\r\n"
                  "<integer>0</integer>\r\n"
                  "<key>value</key>\r\n"
                  "<array>\r\n"
                  "<dict>\r\n"
                  "<key>bytes</key> <integer>%d</integer>\r\n"
                  "<key>c-duration-downloaded</key> <real>%d</real>\r\n"
                  "<key>c-duration-watched</key> <real>%f</real>\r\n"
                  "<key>c-frames-dropped</key> <integer>0</integer>\r\n"
                  "<key>c-observed-bitrate</key> <real>14598047.302367469</real>\r\n"
                  "<key>c-overdue</key> <integer>0</integer>\r\n"
                  "<key>c-stalls</key> <integer>0</integer>\r\n"
                  "<key>c-start-time</key> <real>0.0</real>\r\n"
                  "<key>c-startup-time</key> <real>0.27732497453689575</real>\r\n"
                  "<key>cs-guid</key> <string>%.36s</string>\r\n"
                  "<key>date</key> <date>%d-%.2d-%.2dT%.2d:%.2d:%.2dZ</date>\r\n"
                  "<key>s-ip</key> <string>192.168.0.90</string>\r\n"
                  "<key>s-ip-changes</key> <integer>0</integer>\r\n"
                  "<key>sc-count</key> <integer>7</integer>\r\n"
                  "<key>uri</key> <string>%s</string>\r\n"
                  "</dict>\r\n"
                  "</array>\r\n"
                  "</dict>\r\n"
                  "</plist>\r\n",
                  bytes, downloaded, static_cast<double>(position), guid, utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, "");
    log_property_body(x->reply.body);
}

void build_error_log(net_exchange* x) {
    set_head(x, kBinaryPlistType);
    std::snprintf(x->reply.body, sizeof(x->reply.body),
                  "<BINARY PLIST DATA>\r\n" PLIST_HEAD
                  "<dict>\r\n"
                  "<key>errorCode</key>\r\n"
                  "<integer>0</integer>\r\n"
                  "<key>value</key>\r\n"
                  "</dict>\r\n"
                  "</plist>\r\n");
    log_property_body(x->reply.body);
}
