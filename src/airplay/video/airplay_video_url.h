// URL rewriting for the player's start command: the media URL must travel as one query
// value, and the player fetches it through the daemon's own proxy.
#pragma once

#include <cstddef>

// Put in front of a media URL from a text body, so the player fetches it through port 4000.
inline constexpr char kProxyPrefix4000[] = "http://127.0.0.1:4000/proxy?url=";

// Percent-encodes src into dst (size bytes, always NUL-terminated when size > 0): letters
// and digits stay, a space becomes "+", every other byte "%XX" (upper-case hex), and the
// two port-7000 proxy prefixes are copied verbatim wherever they occur.
// Returns true when all of src was encoded, false when dst was too small (dst then holds
// a shorter, still well-formed encoding of the leading part).
bool airplay_url_encode(const char* src, char* dst, size_t size);
