// The AirTunes stream record: what ANNOUNCE, SETUP and RECORD prepare (AirTunes thread), what
// the RTP receiver decrypts and decodes with (audio receiver thread) and what the audio
// status poll starts the player on (main thread).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "alac/alac.h"
#include "tools/decipher/aes.h"

inline constexpr int kFmtpCount = 20;      // numbers kept from the SDP "a=fmtp:" line
inline constexpr int kAesIvStorage = 256;  // the decoded "a=aesiv:" value; the IV is its first 16

// receiver_state values.
inline constexpr int kReceiverIdle = 0;
inline constexpr int kReceiverStartRequested = 1;
inline constexpr int kReceiverRunning = 2;

// audio_status values (the player's audio state as last polled).
inline constexpr int kAudioBuffering = 1;
inline constexpr int kAudioPlaying = 2;
inline constexpr int kAudioStopped = 4;
inline constexpr int kAudioUnknown = 5;

struct airtunes_session_record {
    // Guards decoder, aes_key, aes_iv, fmtp and frame_length. Held only around memory, never
    // around I/O: ANNOUNCE and SETUP replace them under it, and the receiver decrypts and
    // decodes one packet under it, so a packet never sees half a key or a freed decoder.
    std::mutex lock;
    std::unique_ptr<alac_decoder> decoder;        // made at SETUP from fmtp; null until then
    aes_key_schedule aes_key;                     // set at ANNOUNCE; a zero key until then
    std::array<uint8_t, kAesIvStorage> aes_iv{};  // refilled at each ANNOUNCE carrying it
    std::array<int, kFmtpCount> fmtp{};           // refilled at each ANNOUNCE carrying a=fmtp:
    int frame_length = 0;                         // fmtp[1], copied when the decoder is made

    // 0 idle, 1 start requested, 2 running. RECORD writes 1, the receiver 2, TEARDOWN and
    // key-stop 0; the receiver and the player start read it.
    std::atomic<int> receiver_state{kReceiverIdle};
    // The sender's ports from SETUP (AirTunes thread); the receiver binds control_port.
    std::atomic<int> control_port{0};
    std::atomic<int> timing_port{0};
    // The receiver's UDP sockets (0 = not open); written and read by the receiver only.
    std::atomic<int> control_socket{0};
    std::atomic<int> server_socket{0};
    // IPv4 address (network byte order) of the connection that sent the last RECORD: the
    // receiver accepts datagrams from it alone. Written by the AirTunes thread.
    std::atomic<uint32_t> sender_addr{0};
    // 1 from RECORD until the main loop has started the player; 0 after TEARDOWN, key-stop.
    std::atomic<int> player_start_pending{0};
    // 1 from RECORD until TEARDOWN or key-stop: the main loop polls the audio status.
    std::atomic<int> session_active{0};
    // Main-loop polls counted while the player start is pending (main thread only).
    std::atomic<int> start_poll_count{0};
};

// The one stream record of the process.
extern airtunes_session_record airtunes_session;

// The player's audio state as last polled: 1 buffering, 2 playing, 4 stopped (initial),
// 5 unknown. Written by the main loop's audio poll only; read by the RTSP handlers.
extern std::atomic<int> audio_status;
