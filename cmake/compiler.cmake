# Warnings, hardening and sanitizers for everything that is built here.
add_library(netwarden_flags INTERFACE)

target_compile_options(netwarden_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wundef -Wcast-qual
    -Wmissing-declarations -Wimplicit-fallthrough
    $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wlogical-op>
    # Headers without an extern "C" world outside: packed records are copied, never pointed into.
    $<$<BOOL:${NETWARDEN_WERROR}>:-Werror>)

# The same bytes wherever the tree lies; a debugger is to find the sources, though.
target_compile_options(netwarden_flags INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${CMAKE_CURRENT_SOURCE_DIR}=.>)

if(NETWARDEN_SANITIZE)
    set(sanitize -fsanitize=${NETWARDEN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    # The core has no type information: what it allocates would be reported in a test as no object.
    target_compile_options(netwarden_flags INTERFACE ${sanitize} -fno-sanitize=vptr)
    # The run-time library goes into the program: test programs run in the robot's own root.
    set(static_runtime)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        if(NETWARDEN_SANITIZE MATCHES "address")
            list(APPEND static_runtime -static-libasan)
        endif()
        if(NETWARDEN_SANITIZE MATCHES "undefined")
            list(APPEND static_runtime -static-libubsan)
        endif()
        if(NETWARDEN_SANITIZE MATCHES "thread")
            list(APPEND static_runtime -static-libtsan)
        endif()
    endif()
    target_link_options(netwarden_flags INTERFACE ${sanitize} ${static_runtime})
else()
    target_compile_options(netwarden_flags INTERFACE
        -fstack-protector-strong -ffunction-sections -fdata-sections
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    target_link_options(netwarden_flags INTERFACE
        -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--gc-sections -Wl,--as-needed)
endif()

# On a 32-bit processor: clocks go on after January 2038, and files may have inode numbers of 64 bits.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_compile_definitions(netwarden_flags INTERFACE _TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()

# Position-independent everywhere, and really linked as such.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
