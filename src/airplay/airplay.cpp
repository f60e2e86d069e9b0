// The AirPlay request dispatcher: recognises a request by its text and calls its handler.
#include "airplay/airplay.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "airplay/airplay_replies.h"
#include "airplay/photo/airplay_photo.h"
#include "airplay/video/airplay_video.h"
#include "tools/utils/log.h"

namespace {

net_exchange airplay_exchange;  // owned by the AirPlay thread

constexpr size_t kSessionIdLength = 36;
constexpr const char kLine60[] = "============================================================";
constexpr const char kLine80[] =
    "================================================================================";
constexpr const char kDashes[] = "-------------------------------------------------";

struct request_view {
    std::string_view text;
    bool begins(std::string_view prefix) const { return text.starts_with(prefix); }
    bool contains(std::string_view needle) const {
        return text.find(needle) != std::string_view::npos;
    }
};

// A sender answers our events on the reverse connection; those answers are not requests.
void log_dropped_response(const char* text) {
    log_tagged(zor_log::kGreen, "%s", kLine60);
    log_tagged(zor_log::kGreen, "%s", text);
    log_tagged(zor_log::kGreen, "received common HTTP response, zor_airplay does not process it");
    log_tagged(zor_log::kGreen, "%s", kLine60);
}

void log_received(const char* text) {
    log_tagged(zor_log::kGreen,
               "AIRPLAY RECEIVED "
               "===============================================================");
    log_tagged(zor_log::kGreen, "%s", text);
    log_tagged(zor_log::kGreen, "%s", kLine80);
}

int status_of(int handler_result) {
    return handler_result == -1 ? -1 : 200;
}

int handle_stop(media_session* session, net_exchange* x) {
    session->session_id[0] = '\0';
    session->played_session_id[0] = '\0';
    uint32_t mask = get_activity_mask();
    if (mask & kActivityVideo) return status_of(airplay_video_stop(x));
    if (mask & kActivityPhoto) return status_of(airplay_photo_stop(x));
    return 200;
}

// A sender repeats POST /play within one session; only the first of them starts a video.
int handle_play(media_session* session, net_conn* conn, int n, net_exchange* x) {
    if (std::strncmp(session->session_id, session->played_session_id, kSessionIdLength) == 0) {
        log_plain("%s", kDashes);
        log_plain("found second request sets, ommit second one");
        log_plain("%s", kDashes);
        x->player_reply.body[0] = '\0';
        x->player_reply.content_length = 0;
        x->player_request.body[0] = '\0';
        x->player_request.content_length = 0;
        return 200;
    }
    std::memcpy(session->played_session_id, session->session_id,
                sizeof(session->played_session_id));
    return status_of(airplay_video_start(conn, n, x));
}

// Calls the handler of the first matching test; returns the reply's status. n is
// read_request's count, which the body readers need.
int recognise(media_session* session, net_conn* conn, int n, std::string_view text,
              net_exchange* x) {
    request_view r{text};
    if (r.begins("GET /server-info")) {
        build_server_info(session, x);
        return 200;
    }
    if (r.begins("GET /playback-info")) {
        build_playback_info(x);
        return 200;
    }
    if (r.begins("POST /rate")) return status_of(airplay_video_rate(x));
    if (r.begins("POST /reverse")) {
        std::snprintf(x->reply.head, sizeof(x->reply.head), "%s",
                      "Upgrade: PTTH/1.0\r\nConnection: Upgrade");
        return 101;
    }
    if (r.begins("POST /stop")) return handle_stop(session, x);
    if (r.contains("GET /scrub")) {
        build_scrub_reply(x);
        return 200;
    }
    if (r.contains("POST /scrub")) return status_of(airplay_video_scrub(x));
    if (r.contains("/photo"))
        return status_of(airplay_photo_start(conn, n, x, r.contains("cacheOnly") ? 1 : 0));
    if (r.contains("POST /play")) return handle_play(session, conn, n, x);
    if (r.begins("POST /getProperty?playbackAccessLog")) {
        build_access_log(session, x);
        return 200;
    }
    if (r.begins("POST /getProperty?playbackErrorLog")) {
        build_error_log(x);
        return 200;
    }
    return 501;
}

}  // namespace

int airplay_dispatch(media_session* session, net_conn* conn) {
    net_exchange* x = &airplay_exchange;
    net_exchange_clear(x);
    int n = read_request(conn, &x->request);
    if (n < 1) return -1;
    x->request.head[n] = '\0';
    // Only the header block was copied into head and the rest is zero: the text ends there.
    std::string_view text(x->request.head, strnlen(x->request.head, static_cast<size_t>(n)));

    if (text.starts_with("HTTP")) {
        log_dropped_response(x->request.head);
        return 200;
    }
    if (!text.starts_with("GET /playback-info")) log_received(x->request.head);

    int status = recognise(session, conn, n, text, x);
    // A failed handler still gets a well-formed reply before its connection is closed.
    airplay_send_reply(conn->sock, status < 0 ? 500 : status, &x->reply);
    // Events go to the connection only once it has its 101: none may come before it.
    if (status == 101) airplay_events_attach(session, conn->sock);
    return status;
}
