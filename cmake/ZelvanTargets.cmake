# The functions every folder uses to declare its targets, and the one place that holds compiler flags.

# Flags of our own code.  Warnings are errors in the presets only (ZELVAN_WERROR), so that a distribution may build
# with a newer compiler.
option(ZELVAN_WERROR "Treat warnings as errors" OFF)
add_library(zelvan_flags INTERFACE)
target_compile_features(zelvan_flags INTERFACE cxx_std_20)
target_compile_options(zelvan_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Wformat=2 -Wvla
  $<$<BOOL:${ZELVAN_WERROR}>:-Werror>)

# Cheaper to compile, for programs whose own speed and variables nobody looks at: most of the build time is theirs.
# Without optimisation under the sanitizers (the fortified release needs some), and with line numbers alone.
add_library(zelvan_quick_flags INTERFACE)
target_compile_options(zelvan_quick_flags INTERFACE $<IF:$<CONFIG:RelWithDebInfo>,-O1;-g1,-O0>)

# A room of the server: one static library zelvan_<room>.  DEPENDS names the rooms and libraries below it.
function(zelvan_library room)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(zelvan_${room} STATIC ${ARG_SOURCES})
  target_include_directories(zelvan_${room} PUBLIC "${PROJECT_SOURCE_DIR}/src")
  target_compile_options(zelvan_${room} PRIVATE -fno-exceptions)
  target_link_libraries(zelvan_${room} PRIVATE zelvan_flags PUBLIC ${ARG_DEPENDS})
endfunction()

# The unit tests of a room: one program zelvan_test_<name>.  SUPPORT names files of tests/support that stand in for a
# part of the system at link time (a clock, the driver manager).
function(zelvan_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;SUPPORT;DEPENDS" ${ARGN})
  list(TRANSFORM ARG_SUPPORT PREPEND "${PROJECT_SOURCE_DIR}/tests/support/")
  add_executable(zelvan_test_${name} ${ARG_SOURCES} ${ARG_SUPPORT})
  set_target_properties(zelvan_test_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/tests")
  target_include_directories(zelvan_test_${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
  target_compile_definitions(zelvan_test_${name} PRIVATE ZELVAN_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  target_link_libraries(zelvan_test_${name} PRIVATE zelvan_flags zelvan_quick_flags ${ARG_DEPENDS} GTest::gmock GTest::gtest_main)
  set(lsan_options "suppressions=${PROJECT_SOURCE_DIR}/tests/support/lsan.supp:print_suppressions=0")
  gtest_discover_tests(zelvan_test_${name} DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS unit TIMEOUT 120 ENVIRONMENT "LSAN_OPTIONS=${lsan_options}")
endfunction()
