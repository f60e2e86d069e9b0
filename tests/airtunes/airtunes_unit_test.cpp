// Parsers and conversions of the AirTunes service.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "airtunes/audio/airtunes_rtsp.h"
#include "support/airtunes_sender.h"
#include "tools/decipher/base64.h"
#include "tools/decipher/challenge.h"

namespace {

std::string decode(const char* text, size_t capacity = 64) {
    uint8_t out[64] = {};
    return std::string(reinterpret_cast<char*>(out), base64_decode(out, capacity, text));
}

TEST(AirtunesUnit, Base64HexAndChallengeMessage) {
    EXPECT_EQ(decode("QUJD"), "ABC");
    EXPECT_EQ(decode("QUI="), "AB");
    EXPECT_EQ(decode("QUJ\r\n"), "AB");
    EXPECT_EQ(decode("QUJDRA"), "ABCD");         // unpadded
    EXPECT_EQ(decode("QUJDREVGR0g", 4), "ABC");  // cut to the buffer with its NUL
    char text[8];
    EXPECT_EQ(base64_encode(text, sizeof(text), reinterpret_cast<const uint8_t*>("A"), 1), 5);
    EXPECT_STREQ(text, "QQ==");
    EXPECT_EQ(base64_encode(text, 4, reinterpret_cast<const uint8_t*>("A"), 1), -1);
    EXPECT_EQ(atoh("1f", 2, 0), 31);
    EXPECT_EQ(atoh("1f", 2, 1), 241);

    uint8_t challenge[16] = {9, 0, 7}, msg[kChallengeMessageCapacity];
    ASSERT_EQ(challenge_message(challenge, 16, "192.168.1.20\n", "00:1a:2B:3c:4D:5e", msg), 32);
    const uint8_t tail[] = {192, 168, 1, 20, 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(msg, challenge, 16), 0);
    EXPECT_EQ(std::memcmp(msg + 16, tail, 16), 0);
}

TEST(AirtunesUnit, VolumeMapping) {
    const std::pair<double, int> table[] = {{-30.0, -15},  {-20.5, -10},    {-15.0, -7},
                                            {-2.0, -1},    {-1.0, 0},       {0.0, 0},
                                            {-144.0, -15}, {1e300, 500000}, {-1e300, -15}};
    for (auto [db, box] : table) EXPECT_EQ(airtunes_volume_to_box(db), box) << db;
}

constexpr auto item = zt::dmap_item;

std::string dmap_line(const std::string& items) {
    std::string body = item("mlit", items);
    char line[256];
    airtunes_dmap_line(reinterpret_cast<const uint8_t*>(body.data()), body.size(), line);
    return line;
}

TEST(AirtunesUnit, DmapMetadata) {
    EXPECT_EQ(dmap_line(item("minm", "Song") + item("mper", "12345678") + item("asgn", "Rock")),
              "|zor||zor|Song|zor|Rock|zor|");
    EXPECT_EQ(dmap_line(item("minm", std::string("Ab\0cd", 5))), "|zor||zor|Ab|zor||zor|");
    std::string cut = item("asar", "Band") + item("minm", "Song");  // runs past the body
    EXPECT_EQ(dmap_line(cut.substr(0, cut.size() - 2)), "|zor|Band|zor||zor||zor|");
    EXPECT_EQ(dmap_line(item("asar", "Band") + "min"), "|zor|Band|zor||zor||zor|");
    std::string big(300, 'x');
    EXPECT_EQ(dmap_line(item("asal", big)), std::string(127, 'x') + "|zor||zor||zor||zor|");
    EXPECT_EQ(dmap_line(item("asal", big) + item("asar", big) + item("minm", big)).size(), 255u);
}

TEST(AirtunesUnit, SdpAttributes) {
    std::string sdp = "a=fmtp:96 352\r\na=aesiv:AAAA\r\na=fmtp:1 2\r\na=rsaaeskey:KEY";
    char out[8] = "kept";
    EXPECT_FALSE(sdp_attribute(sdp, "a=rtpmap:", out, sizeof(out)));
    EXPECT_STREQ(out, "kept");
    ASSERT_TRUE(sdp_attribute(sdp, "a=fmtp:", out, sizeof(out)));
    EXPECT_STREQ(out, "96 352");  // the first occurrence
    ASSERT_TRUE(sdp_attribute(sdp, "a=rsaaeskey:", out, sizeof(out)));
    EXPECT_STREQ(out, "KEY");  // the last line, without CR LF
    ASSERT_TRUE(sdp_attribute(sdp, "a=fmtp:", out, 4));
    EXPECT_STREQ(out, "96 ");
}

}  // namespace
