// The small records that every thread asks: provisioning state, device tracking.
#include "device_tracking.h"
#include "provisioning_state.h"
#include "robot.h"

namespace {

using StateRecord = Robot;

TEST_F(StateRecord, TrainingIsNoProvisioning) {
    for (int value = PS_NONE; value <= TRAINING_MODE; value++) {
        for (int times = 0; times < 2; times++)
            provisioning_enter_state(static_cast<provisioning_state>(value));
        EXPECT_EQ(is_robot_provisioning() != 0, value >= 1 && value <= 4) << value;
        EXPECT_EQ(is_robot_training() != 0, value == 5) << value;
    }
    EXPECT_EQ(times_logged("provisioning state "), 5);
    EXPECT_TRUE(logged_as("DBG", "provisioning state WAITING_FOR_IP_DONE -> TRAINING_MODE"));
}

TEST_F(StateRecord, TrackingStartsOnceAndStopsWhole) {
    const auto mode = [] {
        pinger_mode pair;
        get_pinger_mode(&pair);
        return pair.pinger * 10 + pair.discover;
    };
    using device_tracking::take_round;
    start_device_discovery();
    EXPECT_TRUE(take_round());
    set_pinger_mode(PINGER_MODE_DISCOVER, 0);
    set_pinger_mode(3, 1);     // no such kind
    start_device_discovery();  // still pinging: refused
    EXPECT_TRUE(logged("pinger_is still active"));
    EXPECT_EQ(mode(), 10);
    EXPECT_TRUE(take_round() && take_round() && !take_round()) << "three in all";
    for (const auto &end : {stop_device_discovery, pause_device_discovery}) {
        end();
        EXPECT_EQ(mode(), 0);
        EXPECT_FALSE(take_round());
        start_device_discovery();
        EXPECT_EQ(is_device_discovery_active(), 1);
    }
}

}  // namespace
