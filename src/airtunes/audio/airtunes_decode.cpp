// One RTP payload from cipher text to PCM in the audio pipe.
#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>

#include "airtunes/audio/airtunes_audio.h"
#include "airtunes/audio/airtunes_session.h"
#include "main/daemon.h"
#include "tools/utils/log.h"

namespace {

// How long one wait on a full pipe lasts before the stop and the stream state are looked at.
constexpr int kPipeWaitMs = 500;

// The largest output the decoder can produce: every frame it accepts states at most its
// frame length in samples, each of bytes_per_frame bytes.
size_t largest_output(const alac_decoder* decoder) {
    size_t per_frame =
        decoder->bytes_per_frame > 0 ? static_cast<size_t>(decoder->bytes_per_frame) : 0;
    return std::min(kAudioMaxPcmBytes, static_cast<size_t>(decoder->frame_length) * per_frame);
}

// Grows the PCM buffer when a decoder with a larger format came; false when memory failed.
bool fit_pcm_buffer(std::vector<uint8_t>* pcm, size_t size) {
    if (pcm->size() >= size) return true;
    try {
        pcm->resize(size);
    } catch (const std::bad_alloc&) {
        log_plain("ERROR : unable to malloc size[%d]\n", static_cast<int>(size));
        return false;
    }
    return true;
}

// Decrypt and decode under the record's lock (memory only). Returns the PCM byte count.
int decrypt_and_decode(const uint8_t* payload, int length, audio_packet_buffers* b) {
    std::lock_guard<std::mutex> guard(airtunes_session.lock);
    alac_decoder* decoder = airtunes_session.decoder.get();
    if (decoder == nullptr) return 0;
    const size_t capacity = largest_output(decoder);
    if (!fit_pcm_buffer(&b->pcm, capacity)) return 0;

    const int whole = length - length % kAesBlockSize;
    if (whole > 0 &&
        aes_decrypt_payload(payload, b->work.data(), whole, airtunes_session.aes_iv.data(),
                            &airtunes_session.aes_key) != whole)
        return 0;
    // The sender leaves a last partial block unencrypted.
    std::memcpy(b->work.data() + whole, payload + whole, static_cast<size_t>(length - whole));

    std::memset(b->pcm.data(), 0, capacity);
    int produced = 0;
    alac_frame_decode(decoder, b->work.data(), static_cast<size_t>(length), b->pcm.data(), capacity,
                      &produced);
    return std::clamp(produced, 0, static_cast<int>(capacity));
}

// Waits until the pipe takes bytes again. False when the daemon stops or the stream is no
// longer running (a TEARDOWN or RECORD while the player does not read).
bool wait_pipe_writable(int fd) {
    while (true) {
        pollfd fds[2] = {{fd, POLLOUT, 0}, {get_stop_fd(), POLLIN, 0}};
        int r = poll(fds, fds[1].fd >= 0 ? 2 : 1, kPipeWaitMs);
        if (get_stop_flag() == 1 || (r > 0 && (fds[1].revents & POLLIN) != 0)) return false;
        if (airtunes_session.receiver_state.load() != kReceiverRunning) return false;
        if (r > 0 && (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) return false;
        if (r > 0 && (fds[0].revents & POLLOUT) != 0) return true;
        if (r < 0 && errno != EINTR) return false;
    }
}

// Writes all count bytes to the pipe; its write end is non-blocking, so a full pipe is
// waited on with the stop in view. Returns count, or -1 when the bytes were given up.
int write_pcm(int fd, const uint8_t* data, int count) {
    int done = 0;
    while (done < count) {
        ssize_t n = write(fd, data + done, static_cast<size_t>(count - done));
        if (n > 0) {
            done += static_cast<int>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && errno == EAGAIN) {
            if (!wait_pipe_writable(fd)) return -1;
        } else {
            return -1;  // no reader (EPIPE) or no pipe at all
        }
    }
    return count;
}

}  // namespace

int airtunes_decode_packet(const uint8_t* payload, int length, int pipe_fd,
                           audio_packet_buffers* buffers) {
    if (length < 0 || length > kRtpDatagramSize) return 0;
    int produced = decrypt_and_decode(payload, length, buffers);
    if (produced == 0) return 0;
    return write_pcm(pipe_fd, buffers->pcm.data(), produced);
}
