// alac_decode FRAMES_FILE FMTP...: decodes a file of ALAC frames the way the audio path does
// and writes the PCM to standard output. Each frame in the file is a 4-byte big-endian length
// followed by the frame's bytes; the twelve numbers after the file name are those of the
// SDP "a=fmtp:" line, payload type first.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "alac/alac.h"

namespace {

constexpr int kFmtpCount = 12;
// The audio receiver's work buffer: a frame arrives zero-filled beyond its end.
constexpr size_t kWorkBufferBytes = 2048;

bool parse_fmtp(char** args, int* fmtp) {
    for (int i = 0; i < kFmtpCount; ++i) {
        char* end = nullptr;
        errno = 0;
        const long value = std::strtol(args[i], &end, 10);
        if (errno != 0 || end == args[i] || *end != '\0' || value < -2147483647L ||
            value > 2147483647L) {
            std::fprintf(stderr, "alac_decode: bad fmtp number '%s'\n", args[i]);
            return false;
        }
        fmtp[i] = static_cast<int>(value);
    }
    return true;
}

// The decoder as the audio path sets it up: always two channels, fields cut to their widths.
std::unique_ptr<alac_decoder> make_decoder(const int* fmtp) {
    std::unique_ptr<alac_decoder> d = alac_decoder_new(fmtp[3], 2);
    if (!d) return nullptr;
    alac_decoder_set_parameters(d.get(), fmtp);
    if (!alac_decoder_set_buffers(d.get())) return nullptr;
    return d;
}

// Reads the next frame's length; false at the end of the file.
bool read_length(std::FILE* in, uint32_t* length) {
    unsigned char b[4];
    if (std::fread(b, 1, 4, in) != 4) return false;
    *length = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
    return true;
}

int decode_file(std::FILE* in, alac_decoder* d) {
    std::vector<uint8_t> work(kWorkBufferBytes);
    // Room for (frame_length + 3) sample frames of the widest output, 24-bit stereo.
    std::vector<uint8_t> pcm((static_cast<size_t>(d->frame_length) + 3) * 2 * 4);
    uint32_t length = 0;
    for (int index = 0; read_length(in, &length); ++index) {
        if (length > work.size()) {
            std::fprintf(stderr, "alac_decode: frame %d has %u bytes, more than a packet holds\n",
                         index, length);
            return 1;
        }
        std::fill(work.begin(), work.end(), 0);
        if (std::fread(work.data(), 1, length, in) != length) {
            std::fprintf(stderr, "alac_decode: frame %d is cut short\n", index);
            return 1;
        }
        std::fill(pcm.begin(), pcm.end(), 0);
        int pcm_bytes = 0;
        alac_frame_decode(d, work.data(), work.size(), pcm.data(), pcm.size(), &pcm_bytes);
        if (std::fwrite(pcm.data(), 1, static_cast<size_t>(pcm_bytes), stdout) !=
            static_cast<size_t>(pcm_bytes)) {
            std::fprintf(stderr, "alac_decode: write failed\n");
            return 1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 + kFmtpCount) {
        std::fprintf(stderr, "usage: alac_decode FRAMES_FILE FMTP (twelve numbers)\n");
        return 2;
    }
    int fmtp[kFmtpCount];
    if (!parse_fmtp(argv + 2, fmtp)) return 2;
    std::unique_ptr<alac_decoder> decoder = make_decoder(fmtp);
    if (!decoder) {
        std::fprintf(stderr, "alac_decode: cannot create a decoder for these fmtp values\n");
        return 1;
    }
    std::FILE* in = std::fopen(argv[1], "rb");
    if (in == nullptr) {
        std::fprintf(stderr, "alac_decode: cannot open %s: %s\n", argv[1], std::strerror(errno));
        return 1;
    }
    const int status = decode_file(in, decoder.get());
    std::fclose(in);
    return std::fflush(stdout) == 0 ? status : 1;
}
