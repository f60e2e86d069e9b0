// The box's own hardware address, as the AirPlay server-info reply and the AirTunes
// challenge answer present it.
#pragma once

// Length of a MAC address text "xx:xx:xx:xx:xx:xx".
inline constexpr int kMacTextLength = 17;

// Reads eth0's address from sysfs into the process-wide MAC text and returns the text:
// 17 characters, "00:00:00:00:00:00" until the file has once been read, the last value read
// when it cannot be read now. The pointer is the calling thread's own copy, valid until the
// same thread calls again; any thread may call.
const char* read_mac_address();
