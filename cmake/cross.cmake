# What the toolchain files of the robots' processors share: Debian's cross compiler for `triple`, and the headers and
# libraries of Debian on that processor, either in build/sysroot/ARCH, which `scripts/setup --target ARCH` makes, or
# else installed beside this machine's own (libjansson-dev:ARCH and so on).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triple}-g++)
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${CMAKE_SYSTEM_PROCESSOR})
if(EXISTS ${sysroot})
    set(CMAKE_SYSROOT ${sysroot})
    set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
    set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
    set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
    set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
    set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
endif()
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${triple}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
