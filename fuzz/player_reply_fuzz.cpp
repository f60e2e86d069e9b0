// The player's replies as the status polls read them: the video monitor's state, seek flag
// and times, the audio poll's state, and the success rule of every command. The reply is
// NUL-terminated within its 5120-byte buffer, as the player client stores it.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "airplay/video/airplay_video.h"
#include "airtunes/audio/airtunes_audio.h"
#include "tools/utils/player_client.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static net_exchange x;
    if (size >= sizeof(x.player_reply.body)) return 0;
    net_exchange_clear(&x);
    std::memcpy(x.player_reply.body, data, size);
    x.player_reply.content_length = static_cast<int>(size);

    static video_status_record status;
    airplay_video_parse_info(x.player_reply.body, &status);
    if (status.status < 0 || status.status > 4) __builtin_trap();
    int audio = airtunes_status_from_reply(x.player_reply.body, 4);
    if (audio < 1 || audio > 5) __builtin_trap();
    player_command_ok(&x);
    return 0;
}
