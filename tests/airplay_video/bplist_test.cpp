// The binary property-list reader against bodies written by Python's plistlib
// (tests/airplay_video/bplists, made by make_bplists.py) and against broken bodies.
// Every body is parsed from a heap buffer of exactly its length, so a read past the end
// is caught by AddressSanitizer in the sanitizer build.
#include "tools/decipher/bplist.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "airplay_video/bplist_bodies.h"

namespace {

using zt::Bytes;

const char kUrl[] = "http://192.0.2.20:8080/media/movie one.mp4";

Bytes load(const std::string& name) {
    Bytes body = zt::load_bplist(name);
    EXPECT_FALSE(body.empty()) << name;
    return body;
}

struct Found {
    bool found = false;
    std::string content;
    float position = -1.0f;
    std::string log;
};

// Parses a private copy of exactly the body's size and reports what the reader found.
Found parse(const Bytes& body) {
    Bytes copy(body);
    char* end = reinterpret_cast<char*>(1);
    Found f;
    testing::internal::CaptureStdout();
    char* content = bplist_find_content(copy.empty() ? nullptr : copy.data(),
                                        static_cast<uint32_t>(copy.size()), &end, &f.position);
    f.log = testing::internal::GetCapturedStdout();
    f.found = content != nullptr;
    if (content != nullptr) {
        EXPECT_TRUE(end >= content && end <= copy.data() + copy.size());
        f.content.assign(content, end);
    } else {
        EXPECT_EQ(end, nullptr);
    }
    return f;
}

TEST(BplistReader, FindsLocationAndPositionAtTheTopLevel) {
    Bytes body = load("simple");
    Bytes before = body;
    Found f = parse(body);
    ASSERT_TRUE(f.found);
    EXPECT_EQ(f.content, kUrl);
    EXPECT_FLOAT_EQ(f.position, 0.25f);
    EXPECT_NE(f.log.find(std::string("s->content : ") + kUrl), std::string::npos);
    EXPECT_NE(f.log.find("position : 0.250000"), std::string::npos);

    // The caller's buffer is read in place and left as it was.
    std::vector<char> copy(body);
    char* end = nullptr;
    float position = 0;
    char* content = bplist_find_content(copy.data(), copy.size(), &end, &position);
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(std::string(copy.data() + 0x32, std::strlen(kUrl)), kUrl);
    EXPECT_EQ(content, copy.data() + 0x32);
    EXPECT_EQ(end - content, static_cast<long>(std::strlen(kUrl)));
    EXPECT_EQ(copy, before);
}

// What plistlib's bodies yield: the location ("" when none is found) and the position.
TEST(BplistReader, WrittenBodies) {
    const std::string k = kUrl;
    const struct {
        const char* name;
        std::string content;
        float position;
    } cases[] = {
        {"real4", k, 0.25f},              // a 4-byte real
        {"integer_position", k, 42.0f},   // an integer
        {"negative_position", k, -3.0f},  // an 8-byte integer is signed
        {"dates", k, 0.0f},               // dates are skipped
        {"with_true", k, 0.0f},           // booleans and data are skipped
        {"with_false", k, 0.0f},          // a false too, with its diagnostic
        {"position_only", "", 0.3f},      // the position counts without a location
        {"no_location", "", 0.0f},
        {"nested", k, 0.5f},       // nested dictionaries are searched
        {"in_array", "", 0.5f},    // arrays are not
        {"deep_ok", k, 0.0f},      // 30 levels
        {"many_pairs", k, 0.75f},  // 22 pairs: the count follows the marker
        {"wide_refs", k, 0.0f},    // over 255 objects: two-byte references
        {"long_key", k, 0.0f},
        {"large", k, 0.5f},
        {"two_locations", "http://192.0.2.20/second.mp4", 0.0f},  // by prefix; the last wins
        {"nested_then_top", "http://192.0.2.20/outer.mp4", 0.0f},
        {"short_key", "", 0.0f},                           // 15 characters: no match
        {"utf16_ascii", "http://192.0.2.20/A.mp4", 0.0f},  // narrowed
        {"utf16_other", "", 0.0f},                         // not usable
    };
    for (const auto& c : cases) {
        Found f = parse(load(c.name));
        EXPECT_EQ(f.found, !c.content.empty()) << c.name;
        EXPECT_EQ(f.content, c.content) << c.name;
        EXPECT_FLOAT_EQ(f.position, c.position) << c.name;
    }
    Found array = parse(load("in_array"));
    EXPECT_NE(array.log.find("[funct:readBTypeX]"), std::string::npos);
    EXPECT_NE(array.log.find("bplist unimplemented(1)"), std::string::npos);
    EXPECT_NE(parse(load("with_false")).log.find("[funct:readBType0]"), std::string::npos);
    EXPECT_NE(parse(load("position_only")).log.find("position : 0.300000"), std::string::npos);
}

// Each broken body gives null and 0.0, logs one diagnostic, and reads nothing outside.
void expect_malformed(const Bytes& body, const std::string& diagnostic) {
    Found f = parse(body);
    EXPECT_FALSE(f.found) << diagnostic;
    EXPECT_FLOAT_EQ(f.position, 0.0f) << diagnostic;
    size_t at = f.log.find("malformed body (" + diagnostic + ")");
    EXPECT_NE(at, std::string::npos) << f.log;
    EXPECT_EQ(f.log.find("malformed body", at + 1), std::string::npos) << "logged twice";
}

TEST(BplistReader, MalformedBodiesGiveNothing) {
    for (const zt::BrokenBody& b : zt::broken_bodies()) {
        SCOPED_TRACE(b.what);
        expect_malformed(b.body, b.diagnostic);
    }
    expect_malformed(Bytes(), "body shorter than 40 bytes");
}

// Cheap fuzzing: every prefix and many single-byte changes of real bodies must come back
// without a fault (the sanitizer build checks the reads).
TEST(BplistReader, TruncatedAndMutatedBodiesStayInBounds) {
    for (const char* name : {"simple", "nested", "many_pairs", "dates", "utf16_ascii"}) {
        Bytes body = load(name);
        for (size_t n = 0; n <= body.size(); ++n) parse(Bytes(body.begin(), body.begin() + n));
        for (size_t i = 8; i < body.size(); ++i) {
            for (int v : {0x00, 0x01, 0x0f, 0x1f, 0x5f, 0x6f, 0xd1, 0xdf, 0xff}) {
                Bytes b = body;
                b[i] = static_cast<char>(v);
                parse(b);
            }
        }
    }
}

}  // namespace
