# A robot with a 32-bit MIPS processor, little-endian.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(triple mipsel-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
