// The player client against player_sim and against services that misbehave.
#include "tools/utils/player_client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "support/box.h"
#include "support/support.h"

namespace {

// A one-connection stand-in for the control service on 127.0.0.1:8008 that answers
// the way a test tells it to, and remembers what it was sent.
class FakeService {
   public:
    using Behaviour = std::function<void(int client)>;
    explicit FakeService(Behaviour behaviour) {
        listen_fd_ = zt::listen_on("127.0.0.1", 8008);
        EXPECT_GE(listen_fd_, 0);
        thread_ = std::thread([this, behaviour] {
            int client = zt::accept_one(listen_fd_, std::chrono::seconds(15));
            if (client < 0) return;
            connected_ = true;
            zt::Client c(client);
            received_ = c.recv_message(std::chrono::seconds(5));
            behaviour(client);
        });
    }
    ~FakeService() {
        ::shutdown(listen_fd_, SHUT_RDWR);
        thread_.join();
        ::close(listen_fd_);
    }
    std::string received() { return received_; }
    bool connected() const { return connected_; }

   private:
    int listen_fd_ = -1;
    std::thread thread_;
    std::string received_;
    std::atomic<bool> connected_{false};
};

struct Exchange {
    std::unique_ptr<net_exchange> x = std::make_unique<net_exchange>();
    Exchange() { net_exchange_clear(x.get()); }
    int send(const std::string& url) {
        std::snprintf(x->player_request.body, sizeof(x->player_request.body), "%s", url.c_str());
        return cs_request_with_response(&x->player_request, x.get());
    }
};

void reply_with(int client, const std::string& text) {
    (void)!::write(client, text.data(), text.size());
}

}  // namespace

TEST(PlayerClient, SendsTheRequestTextAndJudgesTheReply) {
    std::string answer = "HTTP/1.1 200 OK\r\n\r\n<returnValue>0</returnValue>";
    Exchange e;
    {
        FakeService service([&](int c) { reply_with(c, answer); });
        EXPECT_EQ(e.send("http://127.0.0.1:8008/playback?arg0=stop_vod"), 0);
        e.x->player_request.body[sizeof(e.x->player_request.body) - 1] = '\0';
        EXPECT_EQ(service.received(),
                  "GET /playback?arg0=stop_vod HTTP/1.1\r\nUser-Agent: Wget/1.11.2\r\n"
                  "Accept: */*\r\nHost: 127.0.0.1:8008\r\nConnection: Keep-Alive\r\n\r\n");
    }
    EXPECT_EQ(
        std::string(e.x->player_request.body).rfind("GET /playback?arg0=stop_vod HTTP/1.1\r\n", 0),
        0u);
    EXPECT_EQ(e.x->player_reply.content_length, (int)answer.size());
    EXPECT_EQ(std::string(e.x->player_reply.body), answer);
    EXPECT_TRUE(player_command_ok(e.x.get()));

    // A refusal is a reply without the success marker.
    FakeService refusing(
        [&](int c) { reply_with(c, "HTTP/1.1 200 OK\r\n\r\n<returnValue>-1</returnValue>"); });
    Exchange r;
    EXPECT_EQ(r.send("http://127.0.0.1:8008/playback?arg0=pause_vod"), 0);
    EXPECT_FALSE(player_command_ok(r.x.get()));
}

TEST(PlayerClient, MalformedUrlsFailBeforeAnyConnection) {
    FakeService service([](int) {});
    for (const char* url : {"", "http://127.0.0.1/playback?arg0=stop_vod", "127.0.0.1:8008/x",
                            "http://127.0.0.1:8008"}) {
        Exchange e;
        std::strcpy(e.x->player_reply.body, "untouched");
        EXPECT_EQ(e.send(url), -1) << url;
        EXPECT_STREQ(e.x->player_reply.body, "untouched") << url;
    }
    EXPECT_FALSE(service.connected());
}

TEST(PlayerClient, ServiceDownFailsWithMinusOne) {
    Exchange e;
    EXPECT_EQ(e.send("http://127.0.0.1:8008/playback?arg0=stop_vod"), -1);
    EXPECT_FALSE(player_command_ok(e.x.get()));
}

TEST(PlayerClient, CloseWithoutReplyCountsAsFailure) {
    FakeService service([](int) {});  // reads the request, closes without a word
    Exchange e;
    EXPECT_EQ(e.send("http://127.0.0.1:8008/playback?arg0=stop_vod"), 0);
    EXPECT_EQ(e.x->player_reply.content_length, 0);
    EXPECT_EQ(e.x->player_reply.body[0], '\0');
    EXPECT_FALSE(player_command_ok(e.x.get()));
}

TEST(PlayerClient, LongRepliesAreCutAt5119Bytes) {
    for (size_t size : {size_t{5119}, size_t{6000}}) {
        std::string answer = "HTTP/1.1 200 OK\r\n\r\n<returnValue>0<";
        answer.resize(size, 'p');
        FakeService service([&](int c) { reply_with(c, answer); });
        Exchange e;
        EXPECT_EQ(e.send("http://127.0.0.1:8008/playback?arg0=get_current_vod_info"), 0);
        EXPECT_EQ(e.x->player_reply.content_length, 5119);
        EXPECT_EQ(std::string(e.x->player_reply.body), answer.substr(0, 5119));
        EXPECT_TRUE(player_command_ok(e.x.get()));
    }
}

TEST(PlayerClient, ServiceThatNeverAnswersIsGivenUpOn) {
    std::atomic<bool> release{false};
    FakeService service([&](int c) {
        reply_with(c, "HTTP/1.1 200 OK\r\n\r\n<returnValue>0<");  // a start, then silence
        zt::wait_until([&] { return release.load(); }, std::chrono::seconds(20));
    });
    Exchange e;
    EXPECT_EQ(e.send("http://127.0.0.1:8008/playback?arg0=get_current_vod_info"), 0);
    release = true;
    EXPECT_EQ(e.x->player_reply.content_length, 0);
    EXPECT_FALSE(player_command_ok(e.x.get()));
}

TEST(PlayerClient, TalksToPlayerSim) {
    zt::Box box;
    ASSERT_TRUE(box.start_player());
    net_exchange* x = nullptr;
    auto storage = std::make_unique<net_exchange>();
    x = storage.get();
    EXPECT_TRUE(player_command(x, "/system?arg0=set_system_volume&arg1=42"));
    ASSERT_TRUE(box.wait_command("set_system_volume"));
    EXPECT_EQ(box.commands().back().target, "/system?arg0=set_system_volume&arg1=42");

    EXPECT_TRUE(player_command(x, "/playback?arg0=get_current_vod_info"));
    EXPECT_NE(std::strstr(x->player_reply.body, "<currentStatus>stop<"), nullptr);

    box.sim("/sim/refuse?cmd=pause_vod&count=1");
    EXPECT_FALSE(player_command(x, "/playback?arg0=pause_vod"));
    box.sim("/sim/close?cmd=resume_vod");
    EXPECT_FALSE(player_command(x, "/playback?arg0=resume_vod"));
    EXPECT_EQ(x->player_reply.content_length, 0);
}
