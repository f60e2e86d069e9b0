// AirTunes audio: the RTP receiver thread (datagrams in, PCM into "/tmp/airtunes"), the
// per-packet decrypt and decode, and the main loop's start and status poll of the player.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

// Receive size of one datagram; a datagram of this size may have been cut.
inline constexpr int kRtpDatagramSize = 2048;
inline constexpr int kRtpHeaderSize = 12;
// A retransmitted packet (0x56) comes behind a prefix of this size.
inline constexpr int kRtpResendPrefix = 4;
inline constexpr int kRtpTypeAudio = 0x60;
inline constexpr int kRtpTypeResend = 0x56;
// The FIFO the player reads PCM from.
inline constexpr const char kAudioPipePath[] = "/tmp/airtunes";

// What one datagram holds, as the receiver reads it.
enum class rtp_verdict {
    audio,       // payload type 0x60 or 0x56: payload and seqno are set
    other_type,  // dropped without a word
    too_short,   // shorter than its header (12 bytes, 16 for 0x56): dropped, counted
};

struct rtp_packet {
    int payload_type = 0;              // 0x60 or 0x56 (the marker bit removed)
    int seqno = 0;                     // 0..65535, of the packet itself (behind the prefix)
    const uint8_t* payload = nullptr;  // points into the datagram
    int payload_length = 0;            // >= 0
};

// Splits the length bytes at data. The marker bit is ignored, CSRC count and extension bits
// do not move the payload. Reads nothing outside data[0..length).
rtp_verdict rtp_parse_datagram(const uint8_t* data, int length, rtp_packet* out);

// Buffers of the packet path, owned by the receiver thread and reused for every packet.
struct audio_packet_buffers {
    std::array<uint8_t, kRtpDatagramSize> work{};  // the decrypted frame
    // PCM of one frame; grown (never per packet) to the largest output the current decoder
    // can produce: its frame length times its bytes per sample frame, capped at
    // kAudioMaxPcmBytes (the decoder refuses frames that would not fit).
    std::vector<uint8_t> pcm;
};
inline constexpr size_t kAudioMaxPcmBytes = 65536 * 8;

// Decrypts the whole 16-byte blocks of the payload (AES-128-CBC with the stream key, from a
// fresh copy of its IV), copies the 0..15 trailing bytes in clear, decodes the frame and
// writes its PCM to pipe_fd in one piece. Key, IV and decoder are used under the stream
// record's lock; the write happens after it is released. A full pipe is waited on until it
// drains, the daemon stops or the stream's state leaves running (the rest is then dropped).
// Returns the PCM bytes written, 0 when the frame gave none (no decoder, refused frame),
// -1 when the write failed (no reader) or was given up.
int airtunes_decode_packet(const uint8_t* payload, int length, int pipe_fd,
                           audio_packet_buffers* buffers);

// The UDP receive loop, driven by airtunes_session.receiver_state; returns when the daemon
// stops, closing its sockets and the pipe's write end.
void* audio_receiver_thread(void* unused);

// Waits up to 400 ms for the receiver to run, then tells the player to play the audio pipe.
// Returns 0 when the player accepted, -1 otherwise. Main thread.
int airtunes_start_player();

// The main loop's audio poll (main thread): asks the player for its audio state while a
// stream is active, starts the player when RECORD asked for it, and returns audio_status
// (1 buffering, 2 playing, 4 stopped, 5 unknown).
int airtunes_audio_status();

// The audio state a player reply names (body: NUL-terminated), last when it names none:
// kAudioStopped without "<returnValue>0<"; a later test overrides an earlier one.
int airtunes_status_from_reply(const char* body, int last);
