// The binary property-list reader against bodies written by Python's plistlib
// (tests/airplay_video/bplists, made by make_bplists.py) and against broken bodies.
// Every body is parsed from a heap buffer of exactly its length, so a read past the end
// is caught by AddressSanitizer in the sanitizer build.
#include "tools/decipher/bplist.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "airplay_video/bplist_bodies.h"

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
    const std::vector<char> before = copy;
    char* end = reinterpret_cast<char*>(1);
    Found f;
    testing::internal::CaptureStdout();
    char* content = bplist_find_content(copy.empty() ? nullptr : copy.data(),
                                        static_cast<uint32_t>(copy.size()), &end, &f.position);
    f.log = testing::internal::GetCapturedStdout();
    f.found = content != nullptr;
    f.changed = copy != before;
    if (content != nullptr) {
        EXPECT_TRUE(content >= copy.data() && end >= content && end <= copy.data() + copy.size());
        f.content.assign(content, end);
    } else {
        EXPECT_EQ(end, nullptr);
    }
    return f;
}

// What plistlib's bodies yield: the location ("" when none is found) and the position.
TEST(BplistReader, WrittenBodies) {
    const struct {
        const char* name;
        std::string content;
        float position;
        const char* log;  // a line the reader prints
    } cases[] = {
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
        {"long_key", kUrl, 0.0f, ""},
        {"large", kUrl, 0.5f, ""},
        {"two_locations", "http://192.0.2.20/second.mp4", 0.0f, ""},  // by prefix; the last wins
        {"nested_then_top", "http://192.0.2.20/outer.mp4", 0.0f, ""},
        {"short_key", "", 0.0f, ""},                           // 15 characters: no match
        {"utf16_ascii", "http://192.0.2.20/A.mp4", 0.0f, ""},  // narrowed
        {"utf16_other", "", 0.0f, ""},                         // not usable
    };
    for (const auto& c : cases) {
        std::string body = zt::load_bplist(c.name);
        ASSERT_FALSE(body.empty()) << c.name;
        Found f = parse(body);
        EXPECT_EQ(f.found, !c.content.empty()) << c.name;
        EXPECT_EQ(f.content, c.content) << c.name;
        EXPECT_FLOAT_EQ(f.position, c.position) << c.name;
        EXPECT_NE(f.log.find(c.log), std::string::npos) << c.name << "\n" << f.log;
        // The caller's buffer is read in place and, ASCII text, left as it was.
        EXPECT_TRUE(std::string(c.name) == "utf16_ascii" || !f.changed) << c.name;
        EXPECT_TRUE(!f.found || f.log.find("s->content : " + c.content) != std::string::npos)
            << f.log;
    }
}

// Each broken body gives null and 0.0 and logs one diagnostic.
TEST(BplistReader, MalformedBodiesGiveNothing) {
    std::vector<zt::BrokenBody> bodies = zt::broken_bodies();
    bodies.push_back({"empty", "", "body shorter than 40 bytes"});
    for (const zt::BrokenBody& b : bodies) {
        Found f = parse(b.body);
        EXPECT_FALSE(f.found) << b.what;
        EXPECT_FLOAT_EQ(f.position, 0.0f) << b.what;
        size_t at = f.log.find(std::string("malformed body (") + b.diagnostic + ")");
        EXPECT_NE(at, std::string::npos) << b.what << "\n" << f.log;
        EXPECT_EQ(f.log.find("malformed body", at + 1), std::string::npos) << "logged twice";
    }
}

// Cheap fuzzing: every prefix and many single-byte changes of real bodies must come back
// without a fault (the sanitizer build checks the reads).
TEST(BplistReader, TruncatedAndMutatedBodiesStayInBounds) {
    for (const char* name : {"simple", "nested", "many_pairs", "dates", "utf16_ascii"}) {
        std::string body = zt::load_bplist(name);
        for (size_t n = 0; n <= body.size(); ++n) parse(body.substr(0, n));
        for (size_t i = 8; i < body.size(); ++i) {
            for (int v : {0x00, 0x01, 0x0f, 0x1f, 0x5f, 0x6f, 0xd1, 0xdf, 0xff}) {
                std::string b = body;
                b[i] = static_cast<char>(v);
                parse(b);
            }
        }
    }
}

}  // namespace
