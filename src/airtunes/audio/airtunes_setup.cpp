// SETUP, RECORD, TEARDOWN and the key-stop teardown: the stream's ports and its start and
// stop, as the receiver thread and the main loop's player start read them.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "airtunes/audio/airtunes_rtsp.h"
#include "airtunes/audio/airtunes_session.h"
#include "tools/utils/player_client.h"

namespace {

constexpr int kMaxPortDigits = 5;
constexpr int kServerPort = 6000;  // the receiver's RTP data port
constexpr int kEventPort = 5000;   // this service

// The port after key in head, or -1 when absent, not 1-65535 or longer than 5 digits.
int port_after(std::string_view head, std::string_view key) {
    size_t at = head.find(key);
    if (at == std::string_view::npos) return -1;
    std::string_view rest = head.substr(at + key.size());
    size_t digits = 0;
    while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9') ++digits;
    if (digits == 0 || digits > kMaxPortDigits) return -1;
    int port = 0;
    for (size_t i = 0; i < digits; ++i) port = port * 10 + (rest[i] - '0');
    return port >= 1 && port <= 65535 ? port : -1;
}

void clear_player_records(net_exchange* x) {
    x->player_request.body[0] = '\0';
    x->player_reply.body[0] = '\0';
    x->player_request.content_length = 0;
    x->player_reply.content_length = 0;
}

// Opening the pipe for reading releases a receiver blocked in its write-open of it, so it
// sees the new state; a pipe that does not exist yet is no failure.
void release_receiver(int state) {
    int fd = open(kAudioPipe, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    airtunes_session.receiver_state.store(state);
    if (fd >= 0) close(fd);
}

void end_stream(const char* extra_file) {
    release_receiver(kReceiverIdle);
    remove_if_exists(kArtworkFile);
    remove_if_exists(kMetadataFile);
    if (extra_file != nullptr) remove_if_exists(extra_file);
    airtunes_session.player_start_pending.store(0);
    airtunes_session.session_active.store(0);
}

}  // namespace

void airtunes_reply_setup(net_exchange* x) {
    std::string_view head = request_text(x);
    int cseq = rtsp_get_cseq(x->request.head);
    if (int port = port_after(head, "timing_port="); port > 0)
        airtunes_session.timing_port.store(port);
    if (int port = port_after(head, "control_port="); port > 0)
        airtunes_session.control_port.store(port);
    reply_append(x->reply.head, "%s", kAudioJackLine);
    reply_append(x->reply.head, "CSeq: %d\r\n", cseq);
    reply_append(x->reply.head,
                 "Transport: RTP/AVP/UDP;unicast;mode=record;server_port=%d;control_port=%d;"
                 "timing_port=%d;event_port=%d\r\n",
                 kServerPort, airtunes_session.control_port.load(),
                 airtunes_session.timing_port.load(), kEventPort);
    reply_append(x->reply.head, "Session: DEADBEEF\r\n");
    reply_append(x->reply.head, "\r\n");
}

void airtunes_reply_record(net_exchange* x, uint32_t peer_addr) {
    int cseq = rtsp_get_cseq(x->request.head);
    reply_append(x->reply.head, "%s", kAudioJackLine);
    reply_append(x->reply.head, "CSeq: %d\r\n", cseq);
    reply_append(x->reply.head, "\r\n");
    int fd = open(kAudioPipe, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    // The address first: the receiver reads it once it sees the state change.
    airtunes_session.sender_addr.store(peer_addr);
    airtunes_session.receiver_state.store(kReceiverStartRequested);
    airtunes_session.player_start_pending.store(1);
    airtunes_session.session_active.store(1);
    if (fd >= 0) close(fd);
}

int airtunes_reply_teardown(net_exchange* x) {
    clear_player_records(x);
    end_stream(nullptr);
    int status = audio_status.load();
    if (status != kAudioPlaying && status != kAudioBuffering) return 0;
    if (!player_command(x, "/playback?arg0=stop_aod")) return -1;
    reply_append(x->reply.head, "Server: AirTunes/130.14\r\n");
    reply_append(x->reply.head, "Connection: close\r\n");
    reply_append(x->reply.head, "CSeq: %d\r\n", rtsp_get_cseq(x->request.head));
    reply_append(x->reply.head, "\r\n");
    return 0;
}

void airtunes_key_stop_teardown(net_exchange* x) {
    clear_player_records(x);
    end_stream(kKeyStopFile);
    if (audio_status.load() == kAudioStopped) player_command(x, "/playback?arg0=stop_aod");
}
