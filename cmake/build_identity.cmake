# The identity that `netwarden -v` prints, from git and the build host; sane outside a checkout.
# SOURCE_DATE_EPOCH, if set, makes the date reproducible.
function(git_output variable default)
    execute_process(COMMAND git -C ${CMAKE_CURRENT_SOURCE_DIR} ${ARGN}
                    OUTPUT_VARIABLE output ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE
                    RESULT_VARIABLE result)
    if(NOT result EQUAL 0 OR output STREQUAL "")
        set(output "${default}")
    endif()
    set(${variable} "${output}" PARENT_SCOPE)
endfunction()

git_output(identity_branch "release" rev-parse --abbrev-ref HEAD)
git_output(identity_hash "unknown" rev-parse --short=12 HEAD)
cmake_host_system_information(RESULT identity_machine QUERY HOSTNAME)
string(TIMESTAMP identity_date "%Y-%m-%dT%H:%M:%SZ" UTC)

set(NETWARDEN_BUILD_JOB 0 CACHE STRING "Number of the build job, 0 for a local build")
set(NETWARDEN_BUILDER "" CACHE STRING "Who or what builds, may be empty")

add_library(netwarden_identity INTERFACE)
target_compile_definitions(netwarden_identity INTERFACE
    NETWARDEN_VERSION="${PROJECT_VERSION}"
    NETWARDEN_BRANCH="${identity_branch}"
    NETWARDEN_HASH="${identity_hash}"
    NETWARDEN_BUILD_JOB=${NETWARDEN_BUILD_JOB}
    NETWARDEN_BUILD_MACHINE="${identity_machine}"
    NETWARDEN_BUILDER="${NETWARDEN_BUILDER}"
    NETWARDEN_BUILD_DATE="${identity_date}")
