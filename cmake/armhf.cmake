# A robot with a 32-bit ARM processor that has floating point.
set(CMAKE_SYSTEM_PROCESSOR armhf)
set(triple arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
