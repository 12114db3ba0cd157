# Tests: GoogleTest and GoogleMock from Debian's source package, built with the
# cross compiler; test programs run under Wine through ctest in a private prefix
# inside the build tree. Only the x86_64 build has tests.

set(XK_WINE ${PROJECT_SOURCE_DIR}/scripts/wine.sh)
set(XK_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
set(CMAKE_CROSSCOMPILING_EMULATOR ${XK_WINE} ${XK_WINEPREFIX} run)

set(gtest_disable_pthreads ON CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)

add_test(NAME wine.start COMMAND ${XK_WINE} ${XK_WINEPREFIX} start)
set_tests_properties(wine.start PROPERTIES FIXTURES_SETUP wine TIMEOUT 300)
add_test(NAME wine.stop COMMAND ${XK_WINE} ${XK_WINEPREFIX} stop)
set_tests_properties(wine.stop PROPERTIES FIXTURES_CLEANUP wine TIMEOUT 60)

# Registers a test under ctest with its time limit and the shared
# Wine prefix. Extra ctest properties may follow PROPERTIES.
function(xk_register_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "COMMAND;PROPERTIES" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_test(NAME ${name} COMMAND ${ARG_COMMAND})
  set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine TIMEOUT ${ARG_TIMEOUT} ${ARG_PROPERTIES})
endfunction()

# xk_add_test_suite(<name> SOURCES ... [LIBRARIES ...] [TIMEOUT seconds])
function(xk_add_test_suite name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE xk_test_support ${ARG_LIBRARIES} gmock_main)
  target_link_options(${name} PRIVATE -static)
  # A program that crashes under Wine can still exit with 0, so a suite passes
  # only on GoogleTest's own summary, and fails on any failed test in it.
  xk_register_test(${name} COMMAND ${name} TIMEOUT ${ARG_TIMEOUT}
    PROPERTIES PASS_REGULAR_EXPRESSION "\\[  PASSED  \\] [0-9]+ test"
               FAIL_REGULAR_EXPRESSION "\\[  FAILED  \\]")
endfunction()
