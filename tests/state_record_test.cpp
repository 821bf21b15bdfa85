// The small records that every thread asks: provisioning state and ring, device tracking.
#include "device_pinger.h"
#include "mdns_device_discover.h"
#include "provisioning_sm.h"
#include "robot.h"

namespace {

using EventRing = Robot;
using DeviceTracking = Robot;

TEST_F(EventRing, SevenPostsAreExecutedTheEighthLosesAll) {
    for (int i = 0; i < 7; i++)
        provisioning_state_machine(PROVISIONING_RETRY_PASSWORD);
    provisioning_timer_tick(1);
    EXPECT_TRUE(eventually([&] {
        return times_logged("Not able to retry password due to current state") == 7;
    })) << log_text();
    EXPECT_EQ(times_logged("provisioning_state_machine_run: rx event PROVISIONING_RETRY_PASSWORD "
                           "in state PS_NONE"),
              7);
    forget_log();
    for (int i = 0; i < 8; i++)
        provisioning_state_machine(PROVISIONING_RETRY_PASSWORD);
    provisioning_timer_tick(2);
    EXPECT_TRUE(eventually([&] { return times_logged("tail index") == 8; }));
    EXPECT_EQ(times_logged("rx event"), 0);
}

TEST_F(EventRing, UnknownEventsPrintAsNumbersAndAnIdleAbortIsSilent) {
    provisioning_state_machine(4711);
    provisioning_state_machine(-1);
    provisioning_timer_tick(1);
    EXPECT_TRUE(logged("Unhandled prov event 4711"));
    EXPECT_TRUE(logged("rx event -1 in state PS_NONE"));
    forget_log();
    provisioning_state_machine(PROVISIONING_ABORT);
    provisioning_timer_tick(2);
    EXPECT_TRUE(logged("tail index"));
    EXPECT_EQ(times_logged("rx event"), 0);
}

TEST_F(EventRing, IsPostedFromAnyThread) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++)
        threads.emplace_back([] {
            for (int n = 0; n < 200; n++) {
                provisioning_state_machine(PROVISIONING_DHCP_COMPLETE);
                set_wifi_state_update_after_prov_done(n);
            }
        });
    for (int n = 0; n < 200; n++)
        provisioning_timer_tick(n);
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(is_wifi_state_update_after_prov_done(), 199);
    EXPECT_EQ(is_robot_provisioning(), 0);
    EXPECT_EQ(is_robot_training(), 0);
}

TEST_F(DeviceTracking, StartsOnceAndStopsWhole) {
    const auto mode = [] {
        pinger_mode pair;
        get_pinger_mode(&pair);
        return std::pair<int, int>(pair.pinger, pair.discover);
    };
    start_device_discovery();
    EXPECT_EQ(is_device_discovery_active(), 1);
    set_pinger_mode(PINGER_MODE_DISCOVER, 0);
    start_device_discovery();  // still pinging: refused
    EXPECT_TRUE(logged("pinger_is still active"));
    EXPECT_EQ(mode(), std::pair(1, 0));
    set_pinger_mode(3, 1);
    EXPECT_EQ(mode(), std::pair(1, 0));
    pause_device_discovery();
    EXPECT_EQ(mode(), std::pair(0, 0));
    set_pinger_mode(PINGER_MODE_DISCOVER, 1);
    EXPECT_EQ(is_device_discovery_active(), 0);
}

}  // namespace
