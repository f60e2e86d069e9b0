// The RTSP dispatcher: recognises the method by the request's first characters, keeps the
// service to one sender at a time, and frames the reply.
#include "airtunes/airtunes.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "airplay/video/airplay_video.h"
#include "airtunes/audio/airtunes_rtsp.h"
#include "airtunes/audio/airtunes_session.h"
#include "tools/utils/log.h"

namespace {

net_exchange airtunes_exchange;  // owned by the AirTunes thread

constexpr size_t kDeviceIdLength = 14;
constexpr size_t kDeviceIdField = sizeof(media_session::owner_device_id);
constexpr std::string_view kDeviceIdKey = "X-Apple-Device-ID:";
constexpr const char kLine60[] = "============================================================";
constexpr const char kLine80[] =
    "================================================================================";
constexpr const char kPublicLine[] =
    "Public: ANNOUNCE, SETUP, RECORD, PAUSE, FLUSH, TEARDOWN, OPTIONS, GET_PARAMETER, "
    "SET_PARAMETER, POST, GET\r\n";

void airtunes_reply_options(net_exchange* x) {
    int cseq = rtsp_get_cseq(x->request.head);
    airtunes_apple_response(x->request.head, x->reply.head);
    reply_append(x->reply.head, "%s", kAudioJackLine);
    reply_append(x->reply.head, "CSeq: %d\r\n", cseq);
    if (audio_status.load() != kAudioStopped) reply_append(x->reply.head, "%s", kPublicLine);
    reply_append(x->reply.head, "\r\n");
}

void airtunes_reply_flush(net_exchange* x) {
    x->player_request.body[0] = '\0';
    x->player_reply.body[0] = '\0';
    x->player_request.content_length = 0;
    x->player_reply.content_length = 0;
    int status = audio_status.load();
    if (status != kAudioPlaying && status != kAudioBuffering) return;
    reply_append(x->reply.head, "%s", kAudioJackLine);
    reply_append(x->reply.head, "CSeq: %d\r\n", rtsp_get_cseq(x->request.head));
    reply_append(x->reply.head, "\r\n");
}

// Status line, then reply.head, then reply.body, in one write.
void send_framed(int sock, int status, const net_exchange* x) {
    std::array<char, kTextSize> text{};
    std::snprintf(text.data(), text.size(), "RTSP/1.0 %d %s\r\n", status, status_reason(status));
    reply_append(text.data(), "%s", x->reply.head);
    reply_append(text.data(), "%s", x->reply.body);
    socket_write(sock, text.data(), static_cast<int>(strnlen(text.data(), text.size())));
}

int airtunes_send_reply(int sock, const net_exchange* x) {
    send_framed(sock, 200, x);
    return 200;
}

// A peer's response that is not a plain 200 is logged by its first line, which is never
// scanned past the bytes received.
void log_http_response(std::string_view text) {
    if (text.starts_with("HTTP/1.1 200 OK")) return;
    std::string_view line = text.substr(0, text.find('\r'));
    log_tagged(zor_log::kGreen, "%s", kLine60);
    log_tagged(zor_log::kGreen, "%.*s", static_cast<int>(line.size()), line.data());
    log_tagged(zor_log::kGreen, "received common HTTP response, zor_airplay does not process it");
    log_tagged(zor_log::kGreen, "%s", kLine60);
}

// The single-sender rule. A request without a device id counts as an empty id: it never
// equals an owner, and storing it leaves the service unowned. Returns false when refused.
bool accept_sender(media_session* session, std::string_view text) {
    std::array<char, kDeviceIdField> id{};
    size_t at = text.find(kDeviceIdKey);
    if (at != std::string_view::npos) {
        std::string_view value =
            text.substr(std::min(text.size(), at + kDeviceIdKey.size() + 1), kDeviceIdLength);
        std::memcpy(id.data(), value.data(), value.size());
    } else {
        log_tagged(zor_log::kYellow, "ANNOUNCE packet doesnt have X-Apple-Device-ID");
    }
    if (session->owner_device_id[0] != '\0') {
        log_tagged(zor_log::kBlue,
                   "zor_airplay already established connection with another device");
        if (id[0] == '\0' ||
            std::memcmp(session->owner_device_id, id.data(), kDeviceIdField) != 0) {
            log_tagged(zor_log::kBlue, "X-Apple-Device-ID is different, block it");
            return false;
        }
        log_tagged(zor_log::kBlue, "X-Apple-Device-ID is identical");
        return true;
    }
    log_tagged(zor_log::kBlue, "zor_airplay is not connected to any device");
    std::memcpy(session->owner_device_id, id.data(), kDeviceIdField);
    return true;
}

// Whatever plays is stopped first, each stop followed by a pause for the player to settle;
// a teardown's reply lines are not part of the ANNOUNCE reply.
int handle_announce(media_session* session, net_conn* conn, int n, std::string_view text,
                    net_exchange* x) {
    if (!accept_sender(session, text)) return -1;
    uint32_t mask = get_activity_mask();
    if (mask & kActivityVideo) {
        airplay_video_stop(x);
        sleep(1);
    }
    if (mask & kActivityAudio) {
        airtunes_reply_teardown(x);
        sleep(1);
    }
    net_message_clear(&x->reply);
    return airtunes_reply_announce(conn, n, x) == -1 ? -1 : 200;
}

int handle_setup(net_exchange* x) {
    airtunes_reply_setup(x);
    int status = airtunes_init_decoder() == -1 ? -1 : 200;
    sleep(2);
    return status;
}

int recognise(media_session* session, net_conn* conn, int n, std::string_view text,
              net_exchange* x) {
    if (text.starts_with("OPTIONS")) {
        airtunes_reply_options(x);
        return 200;
    }
    if (text.starts_with("ANNOUNCE")) return handle_announce(session, conn, n, text, x);
    if (text.starts_with("SETUP")) return handle_setup(x);
    if (text.starts_with("RECORD")) {
        airtunes_reply_record(x, conn->peer_addr);
        sleep(2);
        return 200;
    }
    if (text.starts_with("SET_PARAMETER")) {
        airtunes_set_parameter(conn, n, x);
        return 200;
    }
    if (text.starts_with("GET_PARAMETER")) {
        airtunes_get_parameter(conn, n, x);
        return 200;
    }
    if (text.starts_with("FLUSH")) {
        airtunes_reply_flush(x);
        return 200;
    }
    if (text.starts_with("TEARDOWN")) {
        airtunes_reply_teardown(x);
        std::memset(session->owner_device_id, 0, kDeviceIdField);
        return 200;
    }
    if (text.starts_with("POST /fp-setup")) {
        log_tagged(zor_log::kBlue, "%s", kLine80);
        log_tagged(
            zor_log::kBlue,
            "Air-tunes stumble upon a /fp-setup request, this is fatal since iOS version 6.1");
        log_tagged(zor_log::kBlue, "%s", kLine80);
    }
    return 501;
}

}  // namespace

int airtunes_dispatch(media_session* session, net_conn* conn) {
    net_exchange* x = &airtunes_exchange;
    net_exchange_clear(x);
    int n = read_request(conn, &x->request);
    if (n < 1) return -1;
    x->request.head[n] = '\0';
    std::string_view text = request_text(x);

    if (text.starts_with("HTTP")) {
        log_http_response(text);
        return 200;
    }
    if (!text.starts_with("OPTIONS")) {
        log_tagged(zor_log::kGreen,
                   "AIRTUNES RECEIVED "
                   "==============================================================");
        log_text(x->request.head);
        log_tagged(zor_log::kGreen, "%s", kLine80);
    }
    int status = recognise(session, conn, n, text, x);
    send_framed(conn->sock, status, x);
    return status;
}

int airtunes_key_stop(media_session* session, int sock) {
    FILE* f = std::fopen(kKeyStopFile, "r");
    if (f == nullptr) return 0;
    std::array<char, 12> word{};
    bool stopped = std::fgets(word.data(), word.size(), f) != nullptr &&
                   std::strcmp(word.data(), "key_stopped") == 0;
    int result = 0;
    if (stopped) {
        net_exchange* x = &airtunes_exchange;
        net_exchange_clear(x);
        airtunes_reply_flush(x);
        airtunes_send_reply(sock, x);
        airtunes_key_stop_teardown(x);
        std::memset(session->owner_device_id, 0, kDeviceIdField);
        airtunes_send_reply(sock, x);
        usleep(1000);
        result = 1;
    }
    std::fclose(f);
    return result;
}
