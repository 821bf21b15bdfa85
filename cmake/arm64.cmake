# A robot with a 64-bit ARM processor.
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(triple aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
