# The identity that `netwarden -v` prints: git's branch and hash, and where and when this was built.
#
# Included, it makes the target `netwarden_identity`, which writes identity/build_identity.h at every build: a commit
# since the configuration is another version. The file is left alone while nothing in it changes but the time, so the
# date is that of the commit's first build here; with SOURCE_DATE_EPOCH it is that one. Whoever builds without git, or
# wants the same bytes from any machine, says branch, hash and machine himself.
if(NOT CMAKE_SCRIPT_MODE_FILE)
    set(NETWARDEN_BUILD_JOB 0 CACHE STRING "Number of the build job, 0 for a local build")
    set(NETWARDEN_BUILDER "" CACHE STRING "Who or what builds, may be empty")
    set(NETWARDEN_BRANCH "" CACHE STRING "Branch of the sources, empty for git's")
    set(NETWARDEN_HASH "" CACHE STRING "Hash of the sources, empty for git's")
    set(NETWARDEN_BUILD_MACHINE "" CACHE STRING "Where this is built, empty for the host's name")
    set(identity_folder ${CMAKE_CURRENT_BINARY_DIR}/identity)
    file(MAKE_DIRECTORY ${identity_folder})
    add_custom_target(netwarden_identity
        COMMAND ${CMAKE_COMMAND}
            -D "source=${CMAKE_CURRENT_SOURCE_DIR}" -D "header=${identity_folder}/build_identity.h"
            -D "version=${PROJECT_VERSION}" -D "job=${NETWARDEN_BUILD_JOB}" -D "builder=${NETWARDEN_BUILDER}"
            -D "branch=${NETWARDEN_BRANCH}" -D "hash=${NETWARDEN_HASH}" -D "machine=${NETWARDEN_BUILD_MACHINE}"
            -P ${CMAKE_CURRENT_LIST_FILE}
        BYPRODUCTS ${identity_folder}/build_identity.h
        COMMENT "Asking git for the version" VERBATIM)
    return()
endif()

# Of this tree only: a repository around it, into which it was unpacked, knows nothing of its versions.
unset(ENV{GIT_DIR})
unset(ENV{GIT_WORK_TREE})
cmake_path(GET source PARENT_PATH around)
set(ENV{GIT_CEILING_DIRECTORIES} "${around}")

# git_output(VARIABLE DEFAULT ARGUMENTS...): what git says, unless the variable has been given.
function(git_output variable default)
    if(NOT "${${variable}}" STREQUAL "")
        return()
    endif()
    execute_process(COMMAND git -C "${source}" ${ARGN}
                    OUTPUT_VARIABLE output ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE
                    RESULT_VARIABLE result)
    if(NOT result EQUAL 0 OR output STREQUAL "")
        set(output "${default}")
    endif()
    set(${variable} "${output}" PARENT_SCOPE)
endfunction()

git_output(branch "release" rev-parse --abbrev-ref HEAD)
git_output(hash "unknown" rev-parse --short=12 HEAD)
if(machine STREQUAL "")
    cmake_host_system_information(RESULT machine QUERY HOSTNAME)
endif()

function(identity_of date)
    string(CONFIGURE [[
// Written by the build: cmake/build_identity.cmake.
#define NETWARDEN_VERSION "@version@"
#define NETWARDEN_BRANCH "@branch@"
#define NETWARDEN_HASH "@hash@"
#define NETWARDEN_BUILD_JOB @job@
#define NETWARDEN_BUILD_MACHINE "@machine@"
#define NETWARDEN_BUILDER "@builder@"
#define NETWARDEN_BUILD_DATE "@date@"
]] text @ONLY ESCAPE_QUOTES)
    set(text "${text}" PARENT_SCOPE)
endfunction()

file(APPEND "${header}" "") # there from now on, if only to be read
file(READ "${header}" written)
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH} AND written MATCHES "BUILD_DATE \"([^\"]*)\"")
    identity_of("${CMAKE_MATCH_1}")
endif()
if(NOT text STREQUAL written)
    string(TIMESTAMP now "%Y-%m-%dT%H:%M:%SZ" UTC)
    identity_of("${now}")
endif()
if(NOT text STREQUAL written)
    file(WRITE "${header}" "${text}")
endif()
