// A robot whose network tools are all there and succeed. The daemon's pauses take no time in it and
// stand as "sleep N" among the commands, so that one list tells a whole sequence. No descriptor and
// no child may be left at the end of a test.
#pragma once

#include "robot.h"

class WifiRobot : public Robot {
  protected:
    using Lines = std::vector<std::string>;

    void SetUp() override;
    void TearDown() override;

  private:
    long descriptors_ = 0;
};
