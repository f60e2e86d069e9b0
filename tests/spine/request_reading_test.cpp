// read_request against a peer that writes exactly what a sender would, piece by piece.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/support.h"
#include "tools/utils/conn.h"

namespace {

using Pair = zt::SocketPair;

// Writes the pieces with a pause between them, so each arrives as its own read.
std::thread send_in_pieces(Pair& p, std::vector<std::string> pieces) {
    return std::thread([&p, pieces] {
        for (const auto& piece : pieces) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            EXPECT_TRUE(p.send(piece));
        }
    });
}

// read_request on the test's side of the pair, as a fresh connection.
int read_one(Pair& p, net_message* msg) {
    net_conn conn;
    conn_open(&conn, p.sock, 0);
    return read_request(&conn, msg);
}

std::string captured_read(Pair& p, net_message* msg, int* result) {
    testing::internal::CaptureStdout();
    *result = read_one(p, msg);
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

const std::string kGet = "GET /server-info HTTP/1.1\r\nHost: box\r\n\r\n";

}  // namespace

TEST(ReadRequest, AssemblesHeaderBlockSplitOverSegments) {
    Pair p;
    auto msg = std::make_unique<net_message>();
    net_message_clear(msg.get());
    std::thread t = send_in_pieces(p, {"GET /server-info HT", "TP/1.1\r\nHost: box\r", "\n\r\n"});
    int n = read_one(p, msg.get());
    t.join();
    EXPECT_EQ(n, (int)kGet.size());
    EXPECT_EQ(msg->header_len, (int)kGet.size());
    EXPECT_EQ(msg->content_length, 0);
    EXPECT_EQ(std::string(msg->head), kGet);
    EXPECT_EQ(msg->body[0], '\0');
}

TEST(ReadRequest, KeepsBodyBytesThatArriveWithTheHeader) {
    Pair p;
    auto msg = std::make_unique<net_message>();
    net_message_clear(msg.get());
    std::string head = "POST /play HTTP/1.1\r\nContent-Length: 250\r\n\r\n";
    std::string body(100, 'b');
    ASSERT_TRUE(p.send(head + body));
    int n = read_one(p, msg.get());
    EXPECT_EQ(n, (int)(head.size() + 100));
    EXPECT_EQ(msg->header_len, (int)head.size());
    EXPECT_EQ(msg->content_length, 250);
    EXPECT_EQ(std::string(msg->body, 100), body);
    EXPECT_EQ(msg->body[100], '\0');
}

TEST(ReadRequest, ContentLengthIsMatchedExactly) {
    struct Case {
        const char* header;
        int expected;
    } cases[] = {
        {"content-length: 12", 0},                    // lower case is another header
        {"Content-Length:    42", 42},                // blanks skipped
        {"Content-Length: abc", 0},                   // not a number
        {"Content-Length: 17xyz", 17},                // digits up to the first non-digit
        {"Content-Length: 99999999999", 0x7fffffff},  // saturates, never wraps negative
    };
    for (const auto& c : cases) {
        Pair p;
        auto msg = std::make_unique<net_message>();
        net_message_clear(msg.get());
        ASSERT_TRUE(p.send(std::string("POST /x HTTP/1.1\r\n") + c.header + "\r\n\r\n"));
        ASSERT_GT(read_one(p, msg.get()), 0);
        EXPECT_EQ(msg->content_length, c.expected) << c.header;
    }
}

TEST(ReadRequest, HeaderBlockWithoutEndIsCutAt5119Bytes) {
    Pair p;
    auto msg = std::make_unique<net_message>();
    net_message_clear(msg.get());
    std::string block = "GET /" + std::string(6000, 'a');  // more than fits, never ends
    std::thread t([&] { (void)!write(p.peer, block.data(), block.size()); });
    int n = 0;
    std::string out = captured_read(p, msg.get(), &n);
    t.join();
    EXPECT_EQ(n, 5119);
    EXPECT_EQ(msg->header_len, 5119);
    EXPECT_EQ(msg->content_length, 0);
    EXPECT_EQ(std::string(msg->head, 5119), block.substr(0, 5119));
    EXPECT_NE(out.find("Read from sockfd failed(0) from sockfd("), std::string::npos) << out;
}

TEST(ReadRequest, PeerThatClosesAtOnceGivesZeroAndOneLine) {
    Pair p;
    auto msg = std::make_unique<net_message>();
    net_message_clear(msg.get());
    p.close_peer();
    int n = -5;
    std::string out = captured_read(p, msg.get(), &n);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(msg->header_len, 0);
    EXPECT_EQ(out, "\x1b[1;34m[ZOR_AIRPLAY] \x1b[0mRead from sockfd failed(0) from sockfd(" +
                       std::to_string(p.sock) + ")\n");
}

TEST(ReadRequest, PeerThatClosesMidHeaderStillYieldsTheRequestLine) {
    Pair p;
    auto msg = std::make_unique<net_message>();
    net_message_clear(msg.get());
    ASSERT_TRUE(p.send("GET /playback-info HTTP/1.1\r\nHo"));
    p.close_peer();
    int n = read_one(p, msg.get());
    EXPECT_EQ(n, 31);
    EXPECT_EQ(msg->header_len, 31);
    EXPECT_EQ(std::strncmp(msg->head, "GET /playback-info", 18), 0);
}

TEST(ReadRequest, PipelinedRequestIsKeptForTheNextReadAndNeverCountedAsBody) {
    Pair p;
    auto msg = std::make_unique<net_message>();
    net_message_clear(msg.get());
    std::string post = "POST /play HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
    std::string second = "GET /playback-info HTTP/1.1\r\n\r\n";
    ASSERT_TRUE(p.send(post + second));
    net_conn conn;
    conn_open(&conn, p.sock, 0);
    EXPECT_EQ(read_request(&conn, msg.get()), (int)post.size());
    EXPECT_EQ(std::string(msg->body), "body");
    ASSERT_TRUE(conn_finish_request(&conn));
    net_message_clear(msg.get());
    EXPECT_EQ(read_request(&conn, msg.get()), (int)second.size());
    EXPECT_EQ(std::string(msg->head), second);
}

TEST(ReadRequest, NulByteInTheHeaderBlockIsMalformed) {
    Pair p;
    auto msg = std::make_unique<net_message>();
    ASSERT_TRUE(p.send(std::string("GET /a\0b HTTP/1.1\r\n\r\n", 21)));
    int n = 0;
    std::string out = captured_read(p, msg.get(), &n);
    EXPECT_LT(n, 0);
    EXPECT_NE(out.find("NUL byte"), std::string::npos) << out;
}

TEST(FindBounded, LooksOnlyBeforeTheLastByteAndRestoresIt) {
    char text[] = "abc\r\n\r\nXYZ";
    // size 7 leaves out the final '\n' of the empty line: no match.
    EXPECT_EQ(find_bounded(text, "\r\n\r\n", 7), nullptr);
    EXPECT_EQ(text[6], '\n');
    EXPECT_EQ(find_bounded(text, "\r\n\r\n", 8), text + 3);
    // An earlier zero byte ends the search.
    char with_zero[] = "ab\0cd";
    EXPECT_EQ(find_bounded(with_zero, "cd", sizeof(with_zero)), nullptr);
}

TEST(StatusReason, KnownCodesAndTheRest) {
    EXPECT_STREQ(status_reason(200), "OK");
    EXPECT_STREQ(status_reason(501), "Not Implemented");
    EXPECT_STREQ(status_reason(101), "Switching Protocols");
    EXPECT_STREQ(status_reason(404), "Unknown");
    EXPECT_STREQ(status_reason(-1), "Unknown");
}
