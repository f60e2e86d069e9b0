// zor_airplay: the box's AirPlay (video, photos) and AirTunes (music) receiver.
// It takes no arguments: ports, paths and intervals are fixed.
#include "main/daemon.h"

int main(int, char**) {
    return daemon_main();
}
