// What the Apple-Challenge answer signs: the sender's challenge followed by the box's IPv4
// and MAC addresses, and the helpers that find and convert those addresses.
#pragma once

#include <cstddef>
#include <cstdint>

// The signed message is at least this long (zero bytes fill it up).
inline constexpr int kChallengeMessageSize = 32;
// Characters of the header value that are decoded; 24 characters give at most 18 bytes.
inline constexpr int kChallengeTextLength = 24;
inline constexpr int kChallengeMaxBytes = 18;
// Room for the longest message: challenge, 4 address and 6 MAC octets, padded to 32.
inline constexpr int kChallengeMessageCapacity = kChallengeMessageSize;
// Text of an IPv4 address as the address pipeline prints it (15 characters and a NUL).
inline constexpr int kIpTextSize = 16;

// Fills out (kIpTextSize bytes, zeroed by the caller) with the first line printed by
// "ifconfig eth0 | grep 'inet addr' | cut -d':' -f2 | cut -d' ' -f1" (at most 15 characters).
// Leaves out as it was when the pipeline cannot be started.
void get_ip_address(char* out);

// The four dotted fields of text as leading decimal integers, first field in the lowest
// byte: field1 + field2 * 2^8 + field3 * 2^16 + field4 * 2^24. Missing fields count as 0.
uint32_t ipv4_text_to_bytes(const char* text);

// Value of count hex characters; order 1 takes the first character as least significant,
// any other order the last. A character that is not a hex digit is logged and counts as the
// digit taken just before it (0 when it is the first).
int atoh(const char* text, int count, int order);

// Builds the signed message into out (kChallengeMessageCapacity bytes): the n challenge bytes
// (n cut to kChallengeMaxBytes), the four octets of ip_text in dotted order, the six octets of
// the "xx:xx:xx:xx:xx:xx" mac_text, then zeros up to 32 bytes. Returns the message length.
int challenge_message(const uint8_t* challenge, int n, const char* ip_text, const char* mac_text,
                      uint8_t* out);
