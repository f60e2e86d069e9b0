// SET_PARAMETER and GET_PARAMETER: volume, artwork and track metadata passed on to the box.
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "airtunes/audio/airtunes_rtsp.h"
#include "tools/utils/log.h"
#include "tools/utils/player_client.h"

namespace {

constexpr size_t kDmapValueSize = 128;  // values up to 127 bytes
constexpr size_t kDmapLineSize = 256;   // the line up to 255 characters
constexpr size_t kDmapHeader = 8;       // tag and big-endian length
constexpr int kBoxVolumeMin = -15;
// Beyond this a sender volume is nonsense; it is clamped before any integer conversion.
constexpr double kVolumeRange = 1.0e6;

bool contains(std::string_view text, std::string_view needle) {
    return text.find(needle) != std::string_view::npos;
}

void write_file(const char* path, const char* mode, const void* data, size_t size, bool log_short) {
    FILE* f = std::fopen(path, mode);
    if (f == nullptr) return;
    if (std::fwrite(data, 1, size, f) != size && log_short)
        LOG_ERROR_NOBLANK("airtunes_set_parameter", "error in fwrite\n");
    std::fclose(f);
}

void store_artwork(std::string_view head, body_buffer& body) {
    remove_if_exists(kArtworkFile);
    if (contains(head, "image/jpeg"))
        write_file(kArtworkFile, "wb", body.data(), static_cast<size_t>(body.size()), true);
}

// The box hears the volume twice: from the shell's wget (as its own scripts do) and from the
// player client. Every text in the command line is a number formatted here; the URL is quoted
// so that the shell passes its "&" to wget.
void set_volume(const char* body, net_exchange* x) {
    int volume = airtunes_volume_to_box(std::strtod(body + 8, nullptr));
    std::array<char, 96> url{};
    std::snprintf(url.data(), url.size(), "%s/system?arg0=set_system_volume&arg1=%d",
                  PLAYER_URL_PREFIX, volume);
    std::array<char, 160> command{};
    int n = std::snprintf(command.data(), command.size(), "wget -q -O /dev/null '%s'", url.data());
    if (std::system(command.data()) != 0)
        log_tagged(zor_log::kYellow, "%s failed\n", command.data());
    write_file(kVolumeFile, "w", command.data(), static_cast<size_t>(n), false);
    std::snprintf(x->player_request.body, sizeof(x->player_request.body), "%s", url.data());
    cs_request_with_response(&x->player_request, x);
}

// Copies the value of one DMAP item into out (kDmapValueSize bytes), stopping at a NUL.
void copy_value(const uint8_t* value, size_t length, char* out) {
    size_t n = std::min(length, kDmapValueSize - 1);
    const void* nul = std::memchr(value, 0, n);
    if (nul != nullptr) n = static_cast<size_t>(static_cast<const uint8_t*>(nul) - value);
    std::memcpy(out, value, n);
    out[n] = '\0';
}

}  // namespace

int airtunes_volume_to_box(double volume) {
    if (!(volume >= -kVolumeRange)) volume = -kVolumeRange;  // NaN too
    if (volume > kVolumeRange) volume = kVolumeRange;
    int scaled = static_cast<int>(volume * 15.0);
    int box = static_cast<int>(scaled / 30.0);
    return box < kBoxVolumeMin ? kBoxVolumeMin : box;
}

int airtunes_dmap_line(const uint8_t* body, size_t count, char* out) {
    // album, artist, title, genre: their order in the line
    constexpr std::array<const char*, 4> kTags = {"asal", "asar", "minm", "asgn"};
    std::array<std::array<char, kDmapValueSize>, 4> values{};
    size_t pos = kDmapHeader;
    while (pos < count && count - pos >= kDmapHeader) {
        const uint8_t* item = body + pos;
        size_t length = (size_t{item[4]} << 24) | (size_t{item[5]} << 16) | (size_t{item[6]} << 8) |
                        size_t{item[7]};
        if (length > count - pos - kDmapHeader) break;
        for (size_t t = 0; t < kTags.size(); ++t)
            if (std::memcmp(item, kTags[t], 4) == 0)
                copy_value(item + kDmapHeader, length, values[t].data());
        pos += kDmapHeader + length;
    }
    int n = std::snprintf(out, kDmapLineSize, "%s|zor|%s|zor|%s|zor|%s|zor|", values[0].data(),
                          values[1].data(), values[2].data(), values[3].data());
    return std::min(n, static_cast<int>(kDmapLineSize - 1));
}

void airtunes_parse_dmap(const uint8_t* body, size_t count) {
    std::array<char, kDmapLineSize> line{};
    int n = airtunes_dmap_line(body, count, line.data());
    remove_if_exists(kMetadataFile);
    write_file(kMetadataFile, "wb", line.data(), static_cast<size_t>(n), false);
}

void airtunes_set_parameter(net_conn* conn, int read_count, net_exchange* x) {
    int cseq = rtsp_get_cseq(x->request.head);
    std::string_view head = request_text(x);
    body_buffer body;
    switch (airtunes_read_body(conn, read_count, x, kSetParameterBodyCap, &body)) {
        case kBodyOk: {
            std::string_view text(body.data(), strnlen(body.data(), body.size()));
            if (contains(head, "image/"))
                store_artwork(head, body);
            else if (contains(head, "application/x-dmap-tagged"))
                airtunes_parse_dmap(reinterpret_cast<const uint8_t*>(body.data()),
                                    static_cast<size_t>(body.size()));
            else if (contains(text, "volume: ") && body.size() >= 8)
                set_volume(body.data(), x);
            break;
        }
        case kBodyShortRead:
            LOG_ERROR_NOBLANK("airtunes_set_parameter", "Invalid socket read\n");
            break;
        default:
            log_tagged(zor_log::kRed, "Unable to malloc size(%d)\n", x->request.content_length);
            break;
    }
    reply_append(x->reply.head, "%s", kAudioJackLine);
    reply_append(x->reply.head, "CSeq: %d\r\n", cseq);
    reply_append(x->reply.head, "\r\n");
    write_file(kUpdateFile, "w", "vol\n", 4, false);
}

void airtunes_get_parameter(net_conn* conn, int read_count, net_exchange* x) {
    int cseq = rtsp_get_cseq(x->request.head);
    body_buffer body;
    switch (airtunes_read_body(conn, read_count, x, kGetParameterBodyCap, &body)) {
        case kBodyOk:
            break;
        case kBodyShortRead:
            LOG_ERROR_NOBLANK("airtunes_get_parameter", "Invalid socket read\n");
            return;
        default:
            LOG_ERROR_NOBLANK("airtunes_get_parameter", "Failed to malloc\n");
            return;
    }
    log_plain("content:\n%s\n", body.data());
    if (!contains(std::string_view(body.data(), strnlen(body.data(), body.size())), "volume"))
        return;
    reply_append(x->reply.head, "Server: AirTunes/130.14\r\nContent-Type: text/parameters\r\n");
    reply_append(x->reply.body, "Content-Length: 18\r\nCSeq: %d\r\n\r\nvolume: 0.000000\r\n", cseq);
}
