// Events to the sender: "POST /event" requests on the reverse connection it opened.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "airplay/airplay_replies.h"
#include "airplay/video/airplay_video.h"
#include "tools/utils/log.h"
#include "tools/utils/net.h"

namespace {

const char* event_category() {
    uint32_t mask = get_activity_mask();
    if (mask & kActivityPhoto) return "photo";
    if (mask & kActivityVideo) return "video";
    log_plain("WARNING : no current media type, force video");
    return "video";
}

}  // namespace

int send_playback_event_xml(int sock, const char* state) {
    char body[kTextSize] = {};
    char request[kTextSize] = {};
    int body_len = std::snprintf(body, sizeof(body),
                                 PLIST_HEAD
                                 "<dict>\r\n"
                                 "<key>category</key>\r\n"
                                 "<string>%s</string>\r\n"
                                 "<key>sessionID</key>\r\n"
                                 "<integer>1</integer>\r\n"
                                 "<key>state</key>\r\n"
                                 "<string>%.64s</string>\r\n"
                                 "</dict>\r\n"
                                 "</plist>\r\n"
                                 "\r\n",
                                 event_category(), state);
    int length = std::snprintf(request, sizeof(request),
                               "POST /event HTTP/1.1\r\n"
                               "Content-Type: application/x-apple-plist\r\n"
                               "Content-Length: %d\r\n"
                               "X-Apple-Session-ID: 00000000-0000-0000-0000-000000000000\r\n"
                               "\r\n%s",
                               body_len, body);
    int written = socket_write(sock, request, length);
    if (written != length)
        log_tagged(zor_log::kRed, "send_playback_event_xml unable to send out(%d)\n", sock);
    return written;
}

int send_event_to_sender(media_session* session, const char* state) {
    // The AirPlay loop forgets the socket under the lock before it closes it. A duplicate
    // taken under the lock keeps this very connection open for the write, even if the loop
    // closes its number and another connection gets it meanwhile.
    int own = -1;
    {
        std::lock_guard<std::mutex> hold(session->event_lock);
        int sock = session->event_socket.load();
        if (sock == 0) return -1;
        own = dup(sock);
    }
    if (own < 0) return -1;
    int written = send_playback_event_xml(own, state);
    close(own);
    return written;
}
