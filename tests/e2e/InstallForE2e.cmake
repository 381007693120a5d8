# Installs the build into a private prefix for the end-to-end tests:
#   cmake -DBUILD_DIR=<build> -DPREFIX=<prefix> -P InstallForE2e.cmake
# The prefix is emptied first so no file of an earlier build survives.
file(REMOVE_RECURSE "${PREFIX}")
execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${PREFIX}"
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install ${BUILD_DIR} failed: ${rc}")
endif()
if(NOT EXISTS "${PREFIX}/bin/PathPlanner")
  message(FATAL_ERROR "${PREFIX}/bin/PathPlanner was not installed; build the PathPlanner target first")
endif()
