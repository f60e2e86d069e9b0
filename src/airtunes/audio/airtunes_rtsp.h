// The RTSP method handlers of the AirTunes service and the helpers they share. Everything here
// runs on the AirTunes thread, in the service's one net_exchange (x): handlers read x->request
// and append their reply lines to x->reply.head (and x->reply.body), never past kTextSize.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "airtunes/audio/airtunes_session.h"
#include "main/daemon.h"
#include "tools/utils/conn.h"
#include "tools/utils/request.h"

// Body caps: ANNOUNCE and GET_PARAMETER carry text, SET_PARAMETER may carry the artwork.
inline constexpr int kAnnounceBodyCap = 64 * 1024;
inline constexpr int kGetParameterBodyCap = 64 * 1024;
inline constexpr int kSetParameterBodyCap = 16 * 1024 * 1024;

// Files shared with the box's player.
inline constexpr const char kAudioPipe[] = "/tmp/airtunes";
inline constexpr const char kArtworkFile[] = "/tmp/airtunes_thumbnail.jpg";
inline constexpr const char kMetadataFile[] = "/tmp/airtunes_info";
inline constexpr const char kVolumeFile[] = "/tmp/airplay_volume";
inline constexpr const char kUpdateFile[] = "/tmp/airplay_update";
inline constexpr const char kKeyStopFile[] = "/tmp/airplay_key_stopped.txt";

inline constexpr const char kAudioJackLine[] = "Audio-Jack-Status: connected; type=analog\r\n";

// --- shared helpers (airtunes_rtsp.cpp) ---

// The request's header text: x->request.head up to its NUL.
std::string_view request_text(const net_exchange* x);

// The integer after the first "CSeq: " of head (leading-integer conversion); 0 when head is
// null or has none.
int rtsp_get_cseq(const char* head);

// Appends the formatted text to a reply text of kTextSize bytes; what does not fit is cut.
void reply_append(char* text, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Appends "Apple-Response: ..." to reply_head when head carries "Apple-Challenge: ": the
// signature over the challenge, eth0's IPv4 and its MAC. Without a usable key nothing is
// appended (one line logged). Returns -1 when an argument is null, else 0.
int airtunes_apple_response(const char* head, char* reply_head);

// Reads the request's whole body into body. Results as read_body_whole; a body over cap and a
// Content-Length that is not a decimal number give kBodyTooLarge, and the connection is then
// marked to close once the reply has gone, since its unread body would be read as a request.
int airtunes_read_body(net_conn* conn, int read_count, const net_exchange* x, int cap,
                       body_buffer* body);

// Removes path if it exists.
void remove_if_exists(const char* path);

// --- ANNOUNCE (airtunes_announce.cpp) ---

// Reads the SDP body and stores the stream key, IV and fmtp values in airtunes_session; the
// reply lines follow the Apple-Response. Returns 0, or -1 (no body, body unavailable or cut).
int airtunes_reply_announce(net_conn* conn, int read_count, net_exchange* x);

// The value of the first line of sdp that starts with name (e.g. "a=fmtp:"), up to the next
// CR LF or the end of sdp, copied NUL-terminated into out and cut to capacity - 1. Returns
// false (out untouched) when sdp holds no such attribute.
bool sdp_attribute(std::string_view sdp, std::string_view name, char* out, size_t capacity);

// The numbers of sdp's "a=fmtp:" value in order into fmtp (zeroed by the caller), split at
// blanks; tokens are cut to 9 characters and numbers beyond the twentieth are dropped.
// Returns false (fmtp untouched) when sdp has no such attribute.
bool sdp_fmtp_values(std::string_view sdp, std::array<int, kFmtpCount>* fmtp);

// --- SETUP, RECORD, TEARDOWN, key-stop (airtunes_setup.cpp) ---

void airtunes_reply_setup(net_exchange* x);
// peer_addr: IPv4 of the connection that sent RECORD; the receiver takes audio from it alone.
void airtunes_reply_record(net_exchange* x, uint32_t peer_addr);
// Stops the stream; tells the player to stop while it plays or buffers. Returns -1 when that
// command failed (nothing appended), else 0.
int airtunes_reply_teardown(net_exchange* x);
// The stream's end on the key-stop signal; appends nothing.
void airtunes_key_stop_teardown(net_exchange* x);

// --- SET_PARAMETER, GET_PARAMETER (airtunes_parameters.cpp) ---

void airtunes_set_parameter(net_conn* conn, int read_count, net_exchange* x);
void airtunes_get_parameter(net_conn* conn, int read_count, net_exchange* x);

// The box's volume (-15 ... 0) for a sender volume in dB (-30 ... 0, -144 mute).
int airtunes_volume_to_box(double volume);

// Writes "/tmp/airtunes_info" from a DMAP container of count bytes.
void airtunes_parse_dmap(const uint8_t* body, size_t count);
// The metadata line "album|zor|artist|zor|title|zor|genre|zor|" of a DMAP container, at most
// 255 characters, into out (256 bytes). Values are cut to 127 bytes and at a NUL; an item
// whose length runs past the body ends the parse. Returns the line's length.
int airtunes_dmap_line(const uint8_t* body, size_t count, char* out);

// --- decoder (airtunes_decoder.cpp) ---

// Makes the stream's decoder from the fmtp values (sample size fmtp[3], always 2 channels);
// the one it replaces is released once no packet uses it. Returns 0, or -1 (logged) when it
// cannot be made, and the previous decoder stays.
int airtunes_init_decoder();
