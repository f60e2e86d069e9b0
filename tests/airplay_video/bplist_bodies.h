// Binary property lists for the tests: the ones plistlib wrote (bplists/, made by
// make_bplists.py) and small ones built by hand where a body must be broken on purpose.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/support.h"

namespace zt {

using Bytes = std::vector<char>;

inline Bytes load_bplist(const std::string& name) {
    std::string data = read_file(source_dir() + "/tests/airplay_video/bplists/" + name + ".bplist");
    return Bytes(data.begin(), data.end());
}

inline std::string as_text(const Bytes& b) {
    return std::string(b.begin(), b.end());
}

// Objects in order from byte 8, then the offset table, then the trailer.
inline Bytes build_bplist(const std::vector<Bytes>& objects, uint64_t top, uint8_t offset_size = 1,
                          uint8_t ref_size = 1) {
    Bytes body = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<uint64_t> offsets;
    for (const Bytes& o : objects) {
        offsets.push_back(body.size());
        body.insert(body.end(), o.begin(), o.end());
    }
    uint64_t table = body.size();
    for (uint64_t off : offsets)
        for (int i = offset_size - 1; i >= 0; --i)
            body.push_back(static_cast<char>(off >> (8 * i)));
    Bytes trailer(32, 0);
    trailer[6] = static_cast<char>(offset_size);
    trailer[7] = static_cast<char>(ref_size);
    auto put64 = [&](int at, uint64_t v) {
        for (int i = 0; i < 8; ++i) trailer[at + i] = static_cast<char>(v >> (8 * (7 - i)));
    };
    put64(8, objects.size());
    put64(16, top);
    put64(24, table);
    body.insert(body.end(), trailer.begin(), trailer.end());
    return body;
}

// An ASCII string object.
inline Bytes bplist_ascii(const std::string& s) {
    Bytes b;
    if (s.size() < 15) {
        b.push_back(static_cast<char>(0x50 | s.size()));
    } else {
        b = {static_cast<char>(0x5f), 0x11, static_cast<char>(s.size() >> 8),
             static_cast<char>(s.size() & 0xff)};
    }
    b.insert(b.end(), s.begin(), s.end());
    return b;
}

inline char byte(int v) {
    return static_cast<char>(v);
}

// Broken bodies, one of each kind the reader must survive, with the diagnostic each logs.
struct BrokenBody {
    const char* what;
    Bytes body;
    const char* diagnostic;
};

inline std::vector<BrokenBody> broken_bodies() {
    std::vector<BrokenBody> out;
    Bytes simple = load_bplist("simple");
    Bytes magic = simple;
    magic[7] = '1';
    out.push_back({"wrong magic", magic, "strncmp(\"bplist00\", body, 8)==0"});
    out.push_back({"shorter than 40 bytes", Bytes(simple.begin(), simple.begin() + 39),
                   "body shorter than 40 bytes"});
    for (int field : {6, 7}) {
        for (int size : {0, 9, 255}) {
            Bytes b = simple;
            b[b.size() - 32 + field] = byte(size);
            out.push_back({"trailer size out of range", b, "objLen >=1 && objLen <=8"});
        }
    }
    Bytes table = simple;
    table[table.size() - 1] = byte(0xf0);
    out.push_back({"offset table outside", table, "object outside the body"});
    Bytes top = simple;
    top[top.size() - 9] = 100;
    out.push_back({"top object outside", top, "object outside the body"});
    Bytes past =
        build_bplist({{byte(0xd1), 1, 2}, bplist_ascii("Content-Location"), bplist_ascii("u")}, 0);
    past[past.size() - 32 - 1] = byte(0xff);
    out.push_back({"offset outside", past, "object outside the body"});
    out.push_back({"count beyond the body",
                   build_bplist({{byte(0xdf), 0x12, 0x7f, byte(0xff), byte(0xff), byte(0xff)}}, 0),
                   "object outside the body"});
    out.push_back({"string beyond the body",
                   build_bplist({{byte(0xd1), 1, 2},
                                 bplist_ascii("Content-Location"),
                                 {byte(0x5f), 0x12, 0, 0, 0x10, 0, 'h'}},
                                0),
                   "object outside the body"});
    out.push_back({"reference beyond the objects",
                   build_bplist({{byte(0xd1), 1, 0x40}, bplist_ascii("Content-Location")}, 0),
                   "object outside the body"});
    out.push_back({"fill value",
                   build_bplist({{byte(0xd1), 1, 2}, bplist_ascii("Content-Location"), {0x0f}}, 0),
                   "0"});
    out.push_back({"16-byte integer",
                   build_bplist({{0x14, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}}, 0),
                   "objLen >=1 && objLen <=8"});
    out.push_back({"count that is not an integer", build_bplist({{byte(0x5f), 0x50, 'a'}}, 0),
                   "count is not an integer"});
    Bytes counts(4000, byte(0x1f));
    counts[0] = byte(0x5f);
    out.push_back({"counts of counts", build_bplist({counts}, 0), "count is not an integer"});
    out.push_back({"dictionary containing itself",
                   build_bplist({{byte(0xd1), 1, 0}, bplist_ascii("k")}, 0),
                   "nesting deeper than 32"});
    out.push_back({"dictionary containing itself twice",
                   build_bplist({{byte(0xd2), 1, 1, 0, 0}, bplist_ascii("k")}, 0),
                   "nesting deeper than 32"});
    out.push_back(
        {"nesting deeper than 32", load_bplist("deep_too_far"), "nesting deeper than 32"});
    return out;
}

}  // namespace zt
