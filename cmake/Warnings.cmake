# One interface target carries the warning and sanitizer flags; every target links it.
add_library(pp_warnings INTERFACE)
target_compile_options(pp_warnings INTERFACE -Wall -Wextra -Wformat=2 -Wshadow -Wno-unused-parameter)
target_compile_definitions(pp_warnings INTERFACE _FILE_OFFSET_BITS=64 _LARGEFILE64_SOURCE)
# Trace records name their source file relative to the repository, not the build machine.
target_compile_options(pp_warnings INTERFACE -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
# Includes start at the repository root, so each include names its folder.
target_include_directories(pp_warnings INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)

if(PP_SANITIZE)
  target_compile_options(pp_warnings INTERFACE -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_link_options(pp_warnings INTERFACE -fsanitize=address,undefined)
  # The sanitizers' instrumentation makes g++ misjudge <regex> internals as uninitialised.
  target_compile_options(pp_warnings INTERFACE -Wno-maybe-uninitialized)
endif()
if(PP_TSAN)
  target_compile_options(pp_warnings INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(pp_warnings INTERFACE -fsanitize=thread)
endif()

find_package(Threads REQUIRED)
target_link_libraries(pp_warnings INTERFACE Threads::Threads)
