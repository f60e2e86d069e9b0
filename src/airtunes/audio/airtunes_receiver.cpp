// The RTP receiver: one thread, packets handled strictly in arrival order, one at a time,
// with no jitter buffer and nothing ever sent back to the sender.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>

#include "airtunes/audio/airtunes_audio.h"
#include "airtunes/audio/airtunes_session.h"
#include "main/daemon.h"
#include "tools/utils/log.h"

namespace {

constexpr uint16_t kServerPort = 6000;
constexpr int kRunningWaitMs = 2000;  // a state change is seen within this while running
constexpr int kIdleWaitMs = 1000;
constexpr int kOpenRetryMs = 20;  // the pipe is tried this often until a reader comes

// One descriptor, closed with its owner.
class unique_fd {
   public:
    unique_fd() = default;
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }
    int get() const { return fd_; }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

   private:
    int fd_ = -1;
};

// Datagrams dropped in the current stream; logged as one line when it ends.
struct drop_counts {
    int too_short = 0;
    int foreign = 0;
};

// Everything the thread owns, for its whole life.
struct receiver {
    unique_fd server;   // UDP 6000
    unique_fd control;  // UDP control_port
    unique_fd pipe;     // write end of the audio pipe, non-blocking
    bool first_packet_seen = false;
    drop_counts dropped;
    std::array<uint8_t, kRtpDatagramSize> datagram{};
    audio_packet_buffers buffers;
};

// Sleeps up to ms, less when the daemon stops. Returns false when it stops.
bool pause_unless_stopped(int ms) {
    pollfd fd{get_stop_fd(), POLLIN, 0};
    if (get_stop_flag() != 1) poll(&fd, fd.fd >= 0 ? 1 : 0, ms);
    return get_stop_flag() != 1;
}

// A non-blocking UDP socket bound to any local address at port; -1 when that fails (the
// stream then simply gets nothing on it).
int open_udp(int port) {
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (sock < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (port <= 0 || port > 65535 ||
        bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(sock);
        return -1;
    }
    return sock;
}

void log_drops(receiver* r) {
    if (r->dropped.too_short != 0 || r->dropped.foreign != 0)
        log_plain("dropped datagrams: %d too short, %d from other addresses\n",
                  r->dropped.too_short, r->dropped.foreign);
    r->dropped = {};
}

// Waits for the player to open the pipe. A reader-less FIFO refuses a non-blocking open
// for writing, so the open is retried; unlike a blocking open this always sees a stop, a
// TEARDOWN or another RECORD at once.
void open_pipe_for_writing(receiver* r) {
    while (airtunes_session.receiver_state.load() == kReceiverRunning) {
        int fd = open(kAudioPipePath, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            r->pipe.reset(fd);
            return;
        }
        if (errno != ENXIO && errno != EINTR) return;  // no FIFO: writes will fail
        if (!pause_unless_stopped(kOpenRetryMs)) return;
    }
}

// Start requested: fresh sockets, a fresh FIFO, then running and waiting for the reader.
void start_stream(receiver* r) {
    r->control.reset();
    r->server.reset();
    log_drops(r);
    r->first_packet_seen = false;
    r->server.reset(open_udp(kServerPort));
    r->control.reset(open_udp(airtunes_session.control_port.load()));
    airtunes_session.server_socket.store(r->server.get() < 0 ? 0 : r->server.get());
    airtunes_session.control_socket.store(r->control.get() < 0 ? 0 : r->control.get());

    // A player still reading the old FIFO sees the end of its stream.
    r->pipe.reset();
    if (access(kAudioPipePath, F_OK) == 0) unlink(kAudioPipePath);
    mode_t old_mask = umask(0);
    mkfifo(kAudioPipePath, 0777);
    umask(old_mask);

    // Running before the open, so that the main loop goes on to start the player (the
    // reader). A TEARDOWN that came meanwhile wins.
    int expected = kReceiverStartRequested;
    if (!airtunes_session.receiver_state.compare_exchange_strong(expected, kReceiverRunning))
        return;
    open_pipe_for_writing(r);
}

// The sending address of the stream's RTSP connection alone is heard.
bool from_sender(const sockaddr_in& from) {
    return from.sin_family == AF_INET &&
           from.sin_addr.s_addr == airtunes_session.sender_addr.load();
}

void handle_datagram(receiver* r, int length) {
    if (length > kRtpDatagramSize - 1) log_plain("DANGER : got from recvfrom [%d]\n", length);
    rtp_packet packet;
    rtp_verdict verdict = rtp_parse_datagram(r->datagram.data(), length, &packet);
    if (verdict == rtp_verdict::too_short) ++r->dropped.too_short;
    if (verdict != rtp_verdict::audio) return;
    const bool resend = packet.payload_type == kRtpTypeResend;
    if (resend) log_plain("resend data.....\n");
    if (!r->first_packet_seen) {
        log_plain("exp_seqno: %d\n", packet.seqno);
        r->first_packet_seen = true;
    }
    if (resend) log_plain("a resend packet of seq: %d\n", packet.seqno);
    airtunes_decode_packet(packet.payload, packet.payload_length, r->pipe.get(), &r->buffers);
}

// Running: one datagram from either socket per pass, the data port first.
void receive_one(receiver* r) {
    pollfd fds[3] = {
        {r->server.get(), POLLIN, 0}, {r->control.get(), POLLIN, 0}, {get_stop_fd(), POLLIN, 0}};
    if (poll(fds, 3, kRunningWaitMs) <= 0) return;
    int sock = (fds[0].revents & POLLIN) != 0   ? fds[0].fd
               : (fds[1].revents & POLLIN) != 0 ? fds[1].fd
                                                : -1;
    if (sock < 0) return;
    sockaddr_in from{};
    socklen_t from_len = sizeof(from);
    ssize_t n = recvfrom(sock, r->datagram.data(), r->datagram.size(), 0,
                         reinterpret_cast<sockaddr*>(&from), &from_len);
    if (n <= 0) return;
    if (!from_sender(from)) {
        ++r->dropped.foreign;
        return;
    }
    handle_datagram(r, static_cast<int>(n));
}

}  // namespace

rtp_verdict rtp_parse_datagram(const uint8_t* data, int length, rtp_packet* out) {
    if (length < 2) return rtp_verdict::too_short;
    const int type = data[1] & 0x7F;
    if (type != kRtpTypeAudio && type != kRtpTypeResend) return rtp_verdict::other_type;
    // A retransmission is a whole RTP packet behind a 4-byte prefix.
    const int offset = type == kRtpTypeResend ? kRtpResendPrefix : 0;
    if (length < offset + kRtpHeaderSize) return rtp_verdict::too_short;
    const uint8_t* packet = data + offset;
    out->payload_type = type;
    out->seqno = (packet[2] << 8) | packet[3];
    out->payload = packet + kRtpHeaderSize;
    out->payload_length = length - offset - kRtpHeaderSize;
    return rtp_verdict::audio;
}

void* audio_receiver_thread(void*) {
    receiver r;
    while (get_stop_flag() != 1) {
        int state = airtunes_session.receiver_state.load();
        if (state == kReceiverStartRequested) {
            start_stream(&r);
            state = airtunes_session.receiver_state.load();
        }
        if (state == kReceiverRunning)
            receive_one(&r);
        else
            pause_unless_stopped(kIdleWaitMs);
    }
    log_drops(&r);
    airtunes_session.server_socket.store(0);
    airtunes_session.control_socket.store(0);
    return nullptr;
}
