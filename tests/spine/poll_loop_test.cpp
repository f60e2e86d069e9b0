// The main loop's interval: busy after traffic, back to idle after 50 busy passes.
#include <gtest/gtest.h>

#include "main/daemon.h"

TEST(PollLoop, TrafficKeepsItBusyFor50PassesThenIdle) {
    daemon_init_session(&g_daemon.session);
    int countdown = 50;

    // Idle: one pass of 2 s that leaves the countdown alone.
    g_daemon.poll_interval_us = kPollIdleUs;
    daemon_poll_pass(&countdown);
    EXPECT_EQ(countdown, 50);
    EXPECT_EQ(g_daemon.poll_interval_us.load(), kPollIdleUs);

    // A connection loop saw traffic.
    g_daemon.poll_interval_us = kPollBusyUs;
    for (int pass = 1; pass < 50; ++pass) {
        daemon_poll_pass(&countdown);
        ASSERT_EQ(countdown, 50 - pass);
        ASSERT_EQ(g_daemon.poll_interval_us.load(), kPollBusyUs) << pass;
    }
    // More traffic does not restart the count: the 50th pass returns to idle.
    g_daemon.poll_interval_us = kPollBusyUs;
    daemon_poll_pass(&countdown);
    EXPECT_EQ(g_daemon.poll_interval_us.load(), kPollIdleUs);
    EXPECT_EQ(countdown, 50);
    EXPECT_EQ(get_activity_mask(), 0u);
}
