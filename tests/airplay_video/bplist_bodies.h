// Binary property lists for the tests: the ones plistlib wrote (bplists/, made by
// make_bplists.py) and small ones built by hand where a body must be broken on purpose.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/support.h"

namespace zt {

inline std::string load_bplist(const std::string& name) {
    return read_file(source_dir() + "/tests/airplay_video/bplists/" + name + ".bplist");
}

// Objects in order from byte 8, then the offset table (one byte each), then the trailer.
inline std::string build_bplist(const std::vector<std::string>& objects) {
    std::string body = "bplist00", table;
    for (const std::string& o : objects) {
        table += static_cast<char>(body.size());
        body += o;
    }
    std::string trailer(32, '\0');
    trailer[6] = trailer[7] = 1;
    trailer[15] = static_cast<char>(objects.size());
    trailer[30] = static_cast<char>(body.size() >> 8);  // the table follows the objects
    trailer[31] = static_cast<char>(body.size());
    return body + table + trailer;
}

// Broken bodies, one of each kind the reader must survive, with the diagnostic each logs.
struct BrokenBody {
    const char* what;
    std::string body;
    const char* diagnostic;
};

inline std::vector<BrokenBody> broken_bodies() {
    const std::string simple = load_bplist("simple");
    const char* outside = "object outside the body";
    const std::string dict = "\xd1\x01\x02", key = std::string("\x5f\x10\x10") + "Content-Location";
    auto patched = [&](long at, int value) {  // at < 0 counts from the end
        std::string b = simple;
        b[at < 0 ? b.size() + at : at] = static_cast<char>(value);
        return b;
    };
    std::string counts(4000, '\x1f');
    counts[0] = '\x5f';
    std::vector<BrokenBody> out = {
        {"wrong magic", patched(7, '1'), "strncmp(\"bplist00\", body, 8)==0"},
        {"shorter than 40 bytes", simple.substr(0, 39), "body shorter than 40 bytes"},
        {"offset table outside", patched(-1, 0xf0), outside},
        {"top object outside", patched(-9, 100), outside},
        {"count beyond the body", build_bplist({"\xdf\x12\x7f\xff\xff\xff"}), outside},
        {"string beyond the body", build_bplist({dict, key, std::string("\x5f\x12\0\0\x10\0h", 7)}),
         outside},
        {"reference beyond the objects", build_bplist({"\xd1\x01\x40", key}), outside},
        {"fill value", build_bplist({dict, key, "\x0f"}), "0"},
        {"16-byte integer", build_bplist({"\x14" + std::string(16, '\x07')}),
         "objLen >=1 && objLen <=8"},
        {"count that is not an integer", build_bplist({"\x5f\x50\x61"}), "count is not an integer"},
        {"counts of counts", build_bplist({counts}), "count is not an integer"},
        {"dictionary containing itself", build_bplist({std::string("\xd1\x01\0", 3), "\x51k"}),
         "nesting deeper than 32"},
        {"dictionary containing itself twice",
         build_bplist({std::string("\xd2\x01\x01\0\0", 5), "\x51k"}), "nesting deeper than 32"},
        {"nesting deeper than 32", load_bplist("deep_too_far"), "nesting deeper than 32"},
    };
    std::string past = build_bplist({dict, key, "\x51u"});
    past[past.size() - 33] = '\xff';
    out.push_back({"offset outside", past, outside});
    for (int field : {-26, -25})  // the trailer's offset and reference sizes
        for (int size : {0, 9, 255})
            out.push_back(
                {"trailer size out of range", patched(field, size), "objLen >=1 && objLen <=8"});
    return out;
}

}  // namespace zt
