// Photos: the sender's JPEG goes to a fixed file that the player shows; a flag file says a
// photo is on screen, and "/tmp/airplay_pipe" lets another program of the box end it.
#include "airplay/photo/airplay_photo.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include "airplay/video/airplay_video.h"
#include "tools/utils/log.h"
#include "tools/utils/player_client.h"

namespace {

constexpr char kPhotoTmp[] = "/tmp/airplay_photo_tmp.jpg";
constexpr char kPhotoFile[] = "/tmp/airplay_photo.jpg";
constexpr char kPhotoFlag[] = "/tmp/airplay_photo.flg";
constexpr char kShowCommand[] =
    "/playback?arg0=insert_pod_queue&arg1=AirPlayPhoto&arg2=file:///tmp/airplay_photo.jpg"
    "&arg3=&arg4=rot0&arg5=show";
constexpr char kStopCommand[] = "/playback?arg0=stop_pod";
// Most a poll takes from the FIFO; what is left waits for the next poll.
constexpr size_t kPipeReadLimit = 4096;

// Written by the main loop's photo poll only.
int photo_shown = 0;

// Reads the body into body; logs and returns false when it cannot be had.
bool read_photo_body(net_conn* conn, int read_count, const net_message& request,
                     body_buffer* body) {
    switch (read_body_whole(conn, &request, read_count, kPhotoBodyLimit, body)) {
        case kBodyOk:
            return true;
        case kBodyTooLarge:  // refused unread, as a failed allocation would be
        case kBodyNoMemory:
            LOG_ERROR_NOBLANK("photo_init", "Failed to malloc\n");
            return false;
        default:
            LOG_ERROR_NOBLANK("photo_init", "Invalid socket read\n");
            return false;
    }
}

// Writes the image to the temporary file and renames it onto the photo file, so the
// player never sees a half-written photo. 0, or -1 after a failure (logged).
int store_photo(body_buffer& body) {
    std::FILE* file = std::fopen(kPhotoTmp, "wb");
    if (file == nullptr) {
        LOG_ERROR_NOBLANK("photo_init", "Error in fopen\n");
        return -1;
    }
    int result = 0;
    size_t size = static_cast<size_t>(body.size());
    if (std::fwrite(body.data(), 1, size, file) != size) {
        LOG_ERROR_NOBLANK("photo_init", "error in fwrite\n");
        result = -1;
    }
    std::fclose(file);
    std::rename(kPhotoTmp, kPhotoFile);
    return result;
}

int photo_init(net_conn* conn, int read_count, net_exchange* x, int cache_only) {
    if (x->request.content_length == 0) return -1;
    body_buffer body;
    if (!read_photo_body(conn, read_count, x->request, &body)) return -1;
    if (cache_only) return 0;  // read and dropped
    return store_photo(body);
}

// The flag file holds one newline, as the box's other programs expect.
void write_flag() {
    std::FILE* flag = std::fopen(kPhotoFlag, "w");
    if (flag == nullptr) return;
    std::fputc('\n', flag);
    std::fclose(flag);
}

// Whether what another program wrote into the FIFO since the last poll says "stop". Takes
// all that waits (up to kPipeReadLimit), so a line end after the word never shifts a later
// message; several "stop"s between two polls count once.
bool pipe_says_stop(int pipe_fd) {
    if (pipe_fd < 0) return false;
    std::array<char, kPipeReadLimit> text;
    size_t taken = 0;
    while (taken < text.size()) {
        ssize_t n = read(pipe_fd, text.data() + taken, text.size() - taken);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // nothing more waits, or no writer
        taken += static_cast<size_t>(n);
    }
    return std::string_view(text.data(), taken).find("stop") != std::string_view::npos;
}

}  // namespace

int airplay_photo_start(net_conn* conn, int read_count, net_exchange* x, int cache_only) {
    net_message_clear(&x->player_request);
    net_message_clear(&x->player_reply);
    log_plain("[File:%s][funct:%s][line:%d] airplay_photo_start...\n", __FILE__,
              "airplay_photo_start", __LINE__);
    int result = photo_init(conn, read_count, x, cache_only);
    if (result != 0) return result;
    if (cache_only) return 0;
    write_flag();
    return player_command(x, kShowCommand) ? 0 : -1;
}

int airplay_photo_stop(net_exchange* x) {
    bool accepted = player_command(x, kStopCommand);
    std::remove(kPhotoFile);
    std::remove(kPhotoFlag);
    return accepted ? 0 : -1;
}

int airplay_photo_monitor(media_session* session, int pipe_fd) {
    photo_shown = access(kPhotoFlag, F_OK) == 0 ? 1 : 0;
    if (pipe_says_stop(pipe_fd) && session->event_socket.load() != 0)
        send_playback_event_xml(session, "stopped");
    return photo_shown;
}
