// Reader of binary property lists ("bplist00"), just far enough to find the two values a
// video start needs: the URL under "Content-Location" and the number under "Start-Position".
// Nothing is built in memory: the walk starts at the top object, looks into every
// dictionary it reaches and notes where the values lie in the body.
#pragma once

#include <cstdint>

// Deepest nesting of objects the walk follows; deeper bodies count as malformed.
inline constexpr int kBplistMaxDepth = 32;

// Looks up "Content-Location" and "Start-Position" in the length bytes at body.
// Returns the first byte of the location value and stores the byte after it in
// *content_end; both null when there is none. *start_position receives the position (0.0
// when absent). Keys match by prefix ("Content-Location" over 16 bytes, "Start-Position"
// over 14); a later match wins; nested dictionaries are searched, arrays are not.
// A false value reads as 0 with one log line, and the walk goes on.
// A malformed body (bad magic, short, sizes or references out of range, fill or undefined
// type-0 objects, loops, nesting beyond kBplistMaxDepth) gives null and 0.0 with one log line;
// nothing outside [body, body + length) is ever read. The body is not changed, except that
// a UTF-16 location whose code units are all below 128 is narrowed in place to those bytes
// (a UTF-16 location with any other unit counts as absent).
char* bplist_find_content(char* body, uint32_t length, char** content_end, float* start_position);

// What one object reader yields.
struct bplist_value {
    uint8_t type;       // the object's type nibble
    uint32_t number;    // integers: their low 32 bits; true 1; everything else 0
    float real;         // reals and integers as a number; 0.0 for other types
    uint32_t position;  // data and strings: offset of the first byte in the body
    uint32_t length;    // data and ASCII strings: bytes; UTF-16 strings: code units
};

// The state of one lookup. Every read checks its bounds against length and records the
// first fault in error; once error is set, readers return at once with a zero value.
struct bplist_ctx {
    const uint8_t* body;
    uint32_t cursor;  // offset of the next byte to read
    uint32_t length;
    const uint8_t* content;   // the location value (null until found)
    uint32_t content_length;  // its length in bytes; UTF-16: code units
    bool content_utf16;
    float start_position;
    uint8_t trailer[32];
    uint64_t object_count, top_object, offset_table_offset;  // low 32 bits of each field
    int depth;       // objects being read, one inside the other
    uint32_t reads;  // objects read so far; bounded so shared objects cannot explode
    uint32_t max_reads;
    const char* error;  // first fault met, null while the body is sound
};

// Unsigned big-endian integer of size bytes (1 to 8) at p; above 4 bytes only the low 32
// bits survive. The caller has checked that the bytes lie inside the body.
uint32_t bplist_readInt(const uint8_t* p, uint32_t size);

// Reads the object whose marker is at the cursor and returns what its type's reader yields.
bplist_value bplist_readObject(bplist_ctx* ctx);
// Moves the cursor to the object with this reference (through the offset table) and reads it.
bplist_value bplist_readObjectRef(bplist_ctx* ctx, uint32_t ref);

// One reader per type nibble, reached through bplist_type_readers; info is the marker's
// low nibble (or the count that followed it). Types without a reader of their own
// (arrays, sets, UIDs, unknown) go to readBTypeX, which logs and yields 0.
bplist_value readBType0(bplist_ctx* ctx, uint32_t info);  // null, true, false (fill: fault)
bplist_value readBType1(bplist_ctx* ctx, uint32_t info);  // integer of 2^info bytes
bplist_value readBType2(bplist_ctx* ctx, uint32_t info);  // real of 4 or 8 bytes
bplist_value readBType3(bplist_ctx* ctx, uint32_t info);  // date, skipped
bplist_value readBType4(bplist_ctx* ctx, uint32_t info);  // data of info bytes
bplist_value readBType5(bplist_ctx* ctx, uint32_t info);  // ASCII string of info bytes
bplist_value readBType6(bplist_ctx* ctx, uint32_t info);  // UTF-16 string of info units
bplist_value readBTypeD(bplist_ctx* ctx, uint32_t info);  // dictionary of info pairs
bplist_value readBTypeX(bplist_ctx* ctx, uint32_t info);  // not read: logged, yields 0

using bplist_reader = bplist_value (*)(bplist_ctx*, uint32_t);
extern const bplist_reader bplist_type_readers[16];

// Records the first fault of a lookup (later ones are consequences). Returns false.
bool bplist_fail(bplist_ctx* ctx, const char* why);
// True when count bytes from offset lie inside the body; otherwise records a fault.
bool bplist_inside(bplist_ctx* ctx, uint64_t offset, uint64_t count);
