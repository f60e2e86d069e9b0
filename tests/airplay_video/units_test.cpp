// The binary property-list reader against bodies written by Python's plistlib (bplists/, made
// by make_bplists.py) and broken ones, each parsed from a heap buffer of exactly its length so
// that AddressSanitizer catches a read past the end in the sanitizer build.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "airplay/video/airplay_video_url.h"
#include "support/airplay_sender.h"
#include "tools/decipher/bplist.h"

namespace {

const std::string kUrl = "http://192.0.2.20:8080/media/movie one.mp4";

struct Found {
    bool found = false, changed = false;
    std::string content, log;
    float position = -1.0f;
};

// Parses a private copy of exactly the body's size and reports what the reader found.
Found parse(const std::string& body) {
    std::vector<char> copy(body.begin(), body.end());
    char* end = reinterpret_cast<char*>(1);
    Found f;
    testing::internal::CaptureStdout();
    char* content = bplist_find_content(copy.empty() ? nullptr : copy.data(),
                                        static_cast<uint32_t>(copy.size()), &end, &f.position);
    f.log = testing::internal::GetCapturedStdout();
    f.found = content != nullptr;
    f.changed = copy != std::vector<char>(body.begin(), body.end());
    if (f.found) f.content.assign(content, end);
    bool inside = content >= copy.data() && end >= content && end <= copy.data() + copy.size();
    EXPECT_TRUE(f.found ? inside : end == nullptr);
    return f;
}

// Objects in order from byte 8, then the offset table (one byte each), then the trailer.
std::string build_bplist(const std::vector<std::string>& objects) {
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

// What plistlib's bodies yield: the location ("" when none is found), the position, and a line
// the reader prints.
TEST(BplistReader, WrittenBodies) {
    const std::tuple<const char*, std::string, float, const char*> cases[] = {
        {"simple", kUrl, 0.25f, "position : 0.250000"},
        {"real4", kUrl, 0.25f, ""},                          // a 4-byte real
        {"integer_position", kUrl, 42.0f, ""},               // an integer
        {"negative_position", kUrl, -3.0f, ""},              // an 8-byte integer is signed
        {"dates", kUrl, 0.0f, ""},                           // dates are skipped
        {"with_true", kUrl, 0.0f, ""},                       // booleans and data are skipped
        {"with_false", kUrl, 0.0f, "[funct:readBType0]"},    // a false too
        {"position_only", "", 0.3f, "position : 0.300000"},  // counts without a location
        {"no_location", "", 0.0f, ""},
        {"nested", kUrl, 0.5f, ""},                         // nested dictionaries are searched
        {"in_array", "", 0.5f, "bplist unimplemented(1)"},  // arrays are not
        {"deep_ok", kUrl, 0.0f, ""},                        // 30 levels
        {"many_pairs", kUrl, 0.75f, ""},  // 22 pairs: the count follows the marker
        {"wide_refs", kUrl, 0.0f, ""},    // over 255 objects: two-byte references
        {"large", kUrl, 0.5f, ""},
        {"two_locations", "http://192.0.2.20/second.mp4", 0.0f, ""},  // by prefix; the last wins
        {"short_key", "", 0.0f, ""},                                  // 15 characters: no match
        {"utf16_ascii", "http://192.0.2.20/A.mp4", 0.0f, ""},         // narrowed
        {"utf16_other", "", 0.0f, ""},                                // not usable
    };
    for (const auto& [name, content, position, line] : cases) {
        std::string body = zt::load_bplist(name);
        ASSERT_FALSE(body.empty()) << name;
        Found f = parse(body);
        EXPECT_EQ(f.content, content) << name;
        EXPECT_FLOAT_EQ(f.position, position) << name;
        EXPECT_NE(f.log.find(line), std::string::npos) << name << "\n" << f.log;
        // The caller's buffer is read in place and, ASCII text, left as it was.
        EXPECT_EQ(f.changed, std::string(name) == "utf16_ascii") << name;
        EXPECT_TRUE(!f.found || f.log.find("s->content : " + content) != std::string::npos)
            << f.log;
    }
}

// Each broken body gives null and 0.0 and logs one diagnostic.
TEST(BplistReader, MalformedBodiesGiveNothing) {
    const std::string simple = zt::load_bplist("simple"), outside = "object outside the body";
    const std::string dict = "\xd1\x01\x02", key = std::string("\x5f\x10\x10") + "Content-Location";
    auto patched = [&](long at, int value) {  // at < 0 counts from the end
        std::string b = simple;
        b[at < 0 ? b.size() + at : at] = static_cast<char>(value);
        return b;
    };
    std::string counts(4000, '\x1f'), past = build_bplist({dict, key, "\x51u"});
    counts[0] = '\x5f';
    past[past.size() - 33] = '\xff';
    const std::string deep = "nesting deeper than 32", size8 = "objLen >=1 && objLen <=8";
    std::vector<std::tuple<const char*, std::string, std::string>> cases = {
        {"empty", "", "body shorter than 40 bytes"},
        {"wrong magic", patched(7, '1'), "strncmp(\"bplist00\", body, 8)==0"},
        {"39 bytes", simple.substr(0, 39), "body shorter than 40 bytes"},
        {"offset table outside", patched(-1, 0xf0), outside},
        {"top object outside", patched(-9, 100), outside},
        {"offset outside", past, outside},
        {"count beyond the body", build_bplist({"\xdf\x12\x7f\xff\xff\xff"}), outside},
        {"long string", build_bplist({dict, key, std::string("\x5f\x12\0\0\x10\0h", 7)}), outside},
        {"reference beyond the objects", build_bplist({"\xd1\x01\x40", key}), outside},
        {"fill value", build_bplist({dict, key, "\x0f"}), "0"},
        {"16-byte integer", build_bplist({"\x14" + std::string(16, '\x07')}), size8},
        {"count not an integer", build_bplist({"\x5f\x50\x61"}), "count is not an integer"},
        {"counts of counts", build_bplist({counts}), "count is not an integer"},
        {"dictionary in itself", build_bplist({std::string("\xd1\x01\0", 3), "\x51k"}), deep},
        {"twice in itself", build_bplist({std::string("\xd2\x01\x01\0\0", 5), "\x51k"}), deep},
        {"41 levels", zt::load_bplist("deep_too_far"), deep},
    };
    std::vector<std::string> shared;  // each level's two values are the next level: 4096 reads
    for (char i = 1; i <= 12; ++i) shared.push_back(std::string("\xd2\x0c\x0c") + i + i);
    shared.push_back("\x51k");
    cases.push_back({"shared", build_bplist(shared), "more objects read than the body can hold"});
    cases.push_back({"2-byte real", build_bplist({std::string("\x21\0\0", 3)}),
                     "real of a size other than 4 or 8 bytes"});
    for (int field : {-26, -25})  // the trailer's offset and reference sizes
        for (int size : {0, 9, 255}) cases.push_back({"trailer size", patched(field, size), size8});
    for (const auto& [what, body, diagnostic] : cases) {
        Found f = parse(body);
        EXPECT_FALSE(f.found) << what;
        EXPECT_FLOAT_EQ(f.position, 0.0f) << what;
        size_t at = f.log.find("malformed body (" + diagnostic + ")");
        EXPECT_NE(at, std::string::npos) << what << "\n" << f.log;
        EXPECT_EQ(f.log.find("malformed body", at + 1), std::string::npos) << "logged twice";
    }
}

// A too small destination is never overrun, and escapes are never cut.
TEST(UrlEncode, SmallDestinations) {
    const std::tuple<std::string, size_t, std::string, bool> cases[] = {
        {"abc", 4, "abc", true}, {"abcd", 4, "abc", false},
        {"ab/", 5, "ab", false}, {"ahttp://127.0.0.1:7000/proxy?url=", 32, "a", false},
        {"", 1, "", true},
    };
    for (const auto& [src, size, encoded, complete] : cases) {
        std::string dst(size, 'Z');
        EXPECT_EQ(airplay_url_encode(src.c_str(), dst.data(), size), complete) << src;
        ASSERT_LT(dst.find('\0'), size) << src;
        EXPECT_EQ(dst.substr(0, dst.find('\0')), encoded);
    }
}

}  // namespace
