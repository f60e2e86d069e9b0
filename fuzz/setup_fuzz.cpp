// SETUP's request head: the sender's ports in its Transport header, the CSeq, and the reply
// built from them.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "airtunes/audio/airtunes_rtsp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= kTextSize) return 0;
    static net_exchange x;
    net_exchange_clear(&x);
    std::memcpy(x.request.head, data, size);
    airtunes_reply_setup(&x);
    int control = airtunes_session.control_port.load();
    int timing = airtunes_session.timing_port.load();
    if (control < 0 || control > 65535 || timing < 0 || timing > 65535 ||
        std::strlen(x.reply.head) >= kTextSize)
        __builtin_trap();
    return 0;
}
