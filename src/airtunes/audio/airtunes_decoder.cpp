// The stream's ALAC decoder, made at SETUP from the announced format values.
#include <mutex>

#include "airtunes/audio/airtunes_rtsp.h"
#include "airtunes/audio/airtunes_session.h"
#include "tools/utils/log.h"

namespace {

// The box always receives stereo, whatever the announced channel count.
constexpr int kDecoderChannels = 2;

}  // namespace

int airtunes_init_decoder() {
    std::array<int, kFmtpCount> fmtp;
    {
        std::lock_guard<std::mutex> guard(airtunes_session.lock);
        fmtp = airtunes_session.fmtp;
    }
    std::unique_ptr<alac_decoder> decoder = alac_decoder_new(fmtp[3], kDecoderChannels);
    // A frame length the decoder cannot hold makes a decoder that refuses every frame: it
    // counts as not made, and the stream keeps the one it had.
    if (decoder) {
        alac_decoder_set_parameters(decoder.get(), fmtp.data());
        if (!alac_decoder_set_buffers(decoder.get())) decoder.reset();
    }
    if (!decoder) {
        log_plain("Error creating alac.....");
        return -1;
    }
    {
        // The receiver decodes each packet under the lock, so the old decoder is out of use
        // once it is swapped out here; it is released after the lock is let go.
        std::lock_guard<std::mutex> guard(airtunes_session.lock);
        decoder.swap(airtunes_session.decoder);
        airtunes_session.frame_length = fmtp[1];
    }
    return 0;
}
