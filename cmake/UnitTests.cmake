# One executable for each tests/unit/<module>[_<topic>]_test.cpp, linked with the code of the module
# that its name begins with (a leading underscore of the module left out), or with all of them.
#
# Tests may start an interpreter: PYTHONHOME is that of the Python built for, and the sources and the
# built modules are on its path.

find_package(GTest QUIET)
if(NOT GTest_FOUND)
  message(FATAL_ERROR "GoogleTest not found; install it, for example: apt-get install libgtest-dev")
endif()
include(GoogleTest)

execute_process(
  COMMAND "${Python_EXECUTABLE}" -c "import sys; print(sys.base_prefix)"
  OUTPUT_VARIABLE python_home OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

set(test_environment
    PYTHONHOME=${python_home} "PYTHONPATH=${PROJECT_SOURCE_DIR}:${PROJECT_BINARY_DIR}")
if(LOOM_SANITIZE)
  # The interpreter keeps what it allocates at start until the process ends.
  list(APPEND test_environment ASAN_OPTIONS=detect_leaks=0 PYTHONMALLOC=malloc)
endif()

get_property(modules GLOBAL PROPERTY LOOM_MODULES)
file(GLOB unit_tests CONFIGURE_DEPENDS tests/unit/*_test.cpp)
foreach(source IN LISTS unit_tests)
  cmake_path(GET source STEM test)
  set(objects "")
  foreach(module IN LISTS modules)
    string(REGEX REPLACE "^_" "" stem ${module})
    if(test MATCHES "^${stem}_")
      set(objects ${module}_objects)
    endif()
  endforeach()
  if(NOT objects AND NOT test MATCHES "^pyrt_")
    list(TRANSFORM modules APPEND _objects OUTPUT_VARIABLE objects)
  endif()

  add_executable(${test} ${source})
  target_link_libraries(${test} PRIVATE ${objects} pyrt Python::Python GTest::gtest_main)
  set_target_properties(${test} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/unit")
  gtest_discover_tests(
    ${test} TEST_PREFIX ${test}. DISCOVERY_MODE PRE_TEST
    PROPERTIES ENVIRONMENT "${test_environment}" TIMEOUT 120)
endforeach()
