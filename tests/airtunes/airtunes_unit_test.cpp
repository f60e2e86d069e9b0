// Parsers and conversions of the AirTunes service: Base64, hex pairs, the signed challenge
// message, the volume mapping, DMAP metadata and SDP attributes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "airtunes/audio/airtunes_rtsp.h"
#include "tools/decipher/base64.h"
#include "tools/decipher/challenge.h"

namespace {

std::string decode(const char* text, size_t capacity = 64) {
    uint8_t out[64] = {};
    int n = base64_decode(out, capacity, text);
    EXPECT_EQ(out[n], 0);
    return std::string(reinterpret_cast<char*>(out), static_cast<size_t>(n));
}

TEST(AirtunesUnit, Base64BothWays) {
    EXPECT_EQ(decode("QUJD"), "ABC");
    EXPECT_EQ(decode("QUI="), "AB");
    EXPECT_EQ(decode("QUJ\r\n"), "AB");
    EXPECT_EQ(decode("QUJDRA"), "ABCD");  // unpadded
    EXPECT_EQ(decode("QUJDRA==").size(), 4u);
    EXPECT_EQ(decode("QUJDREVGR0g", 4), "ABC");  // cut to the buffer, NUL included
    char text[16];
    EXPECT_EQ(base64_encode(text, sizeof(text), reinterpret_cast<const uint8_t*>("A"), 1), 5);
    EXPECT_STREQ(text, "QQ==");
    EXPECT_EQ(base64_encode(text, sizeof(text), reinterpret_cast<const uint8_t*>("ABCD"), 4), 9);
    EXPECT_STREQ(text, "QUJDRA==");
    EXPECT_EQ(base64_encode(text, 4, reinterpret_cast<const uint8_t*>("A"), 1), -1);
}

TEST(AirtunesUnit, HexPairsAndChallengeMessage) {
    EXPECT_EQ(atoh("1f", 2, 0), 31);
    EXPECT_EQ(atoh("1f", 2, 1), 241);
    EXPECT_EQ(atoh("2B", 2, 0), 0x2b);
    EXPECT_EQ(ipv4_text_to_bytes("192.168.1.20\n"), 0x1401a8c0u);

    // 16 challenge bytes (a zero among them), then address, MAC and zeros.
    uint8_t challenge[16];
    for (int i = 0; i < 16; ++i) challenge[i] = static_cast<uint8_t>(i * 7);
    uint8_t msg[kChallengeMessageCapacity];
    ASSERT_EQ(challenge_message(challenge, 16, "192.168.1.20\n", "00:1a:2B:3c:4D:5e", msg), 32);
    const uint8_t tail[] = {192, 168, 1, 20, 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(msg, challenge, 16), 0);
    EXPECT_EQ(std::memcmp(msg + 16, tail, 16), 0);
    // An 18-byte challenge (24 characters, no padding) still fits the 32 bytes.
    uint8_t long_challenge[18] = {};
    EXPECT_EQ(challenge_message(long_challenge, 18, "1.2.3.4", "00:00:00:00:00:01", msg), 32);
    EXPECT_EQ(msg[18], 1);
    EXPECT_EQ(msg[27], 1);
}

TEST(AirtunesUnit, VolumeMapping) {
    const std::pair<double, int> table[] = {{-30.0, -15},  {-20.5, -10},    {-15.0, -7},
                                            {-2.0, -1},    {-1.0, 0},       {0.0, 0},
                                            {-144.0, -15}, {1e300, 500000}, {-1e300, -15}};
    for (auto [db, box] : table) EXPECT_EQ(airtunes_volume_to_box(db), box) << db;
}

std::string item(const std::string& tag, const std::string& value) {
    std::string s = tag;
    uint32_t n = static_cast<uint32_t>(value.size());
    for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>((n >> shift) & 0xff);
    return s + value;
}

std::string dmap_line(const std::string& items) {
    std::string body = item("mlit", items);
    char line[256];
    int n = airtunes_dmap_line(reinterpret_cast<const uint8_t*>(body.data()), body.size(), line);
    EXPECT_EQ(static_cast<size_t>(n), std::strlen(line));
    return line;
}

TEST(AirtunesUnit, DmapMetadata) {
    EXPECT_EQ(dmap_line(item("minm", "Song") + item("asar", "Band") + item("mper", "xxxxxxxx") +
                        item("asal", "Record") + item("asgn", "Rock")),
              "Record|zor|Band|zor|Song|zor|Rock|zor|");
    EXPECT_EQ(dmap_line(item("minm", "Song")), "|zor||zor|Song|zor||zor|");
    EXPECT_EQ(dmap_line(item("minm", std::string("Ab\0cd", 5))), "|zor||zor|Ab|zor||zor|");
    // An item running past the body ends the parse; what came before it counts.
    std::string cut = item("asar", "Band") + item("minm", "Song");
    cut.resize(cut.size() - 2);
    EXPECT_EQ(dmap_line(cut), "|zor|Band|zor||zor||zor|");
    EXPECT_EQ(dmap_line(item("asar", "Band") + "min"), "|zor|Band|zor||zor||zor|");
    // Oversized values are cut to 127 bytes, the line to 255 characters.
    std::string big(300, 'x');
    EXPECT_EQ(dmap_line(item("asal", big)), std::string(127, 'x') + "|zor||zor||zor||zor|");
    EXPECT_EQ(dmap_line(item("asal", big) + item("asar", big) + item("minm", big)).size(), 255u);
}

TEST(AirtunesUnit, SdpAttributes) {
    std::string sdp = "v=0\r\na=fmtp:96 352 0 16\r\na=aesiv:AAAA\r\na=fmtp:1 2\r\na=rsaaeskey:KEY";
    char out[16] = "untouched";
    EXPECT_FALSE(sdp_attribute(sdp, "a=rtpmap:", out, sizeof(out)));
    EXPECT_STREQ(out, "untouched");
    ASSERT_TRUE(sdp_attribute(sdp, "a=fmtp:", out, sizeof(out)));
    EXPECT_STREQ(out, "96 352 0 16");  // first occurrence
    ASSERT_TRUE(sdp_attribute(sdp, "a=rsaaeskey:", out, sizeof(out)));
    EXPECT_STREQ(out, "KEY");  // last line, no CR LF
    char small[4];
    ASSERT_TRUE(sdp_attribute(sdp, "a=fmtp:", small, sizeof(small)));
    EXPECT_STREQ(small, "96 ");
}

}  // namespace
