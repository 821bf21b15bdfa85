# What the toolchain files of the robots' processors share: Debian's cross compiler for `triple`, and the headers and
# libraries of Debian on that processor in build/sysroot/ARCH, which `scripts/setup --target ARCH` makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triple}-g++)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${CMAKE_SYSTEM_PROCESSOR})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${triple}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
