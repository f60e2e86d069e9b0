// Placeholders until the audio path lands: the receiver idles and audio is stopped.
#include "airtunes/audio/airtunes_audio.h"

#include <unistd.h>

#include "main/daemon.h"

void* audio_receiver_thread(void*) {
    while (get_stop_flag() != 1) usleep(100000);
    return nullptr;
}

int airtunes_audio_status() {
    return 4;
}
