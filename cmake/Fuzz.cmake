# One executable for each tests/fuzz/<target>_fuzz.cpp, built with clang's libFuzzer, ASan and UBSan in
# <build>/fuzzers; the target "fuzzers" builds them all. tests/fuzz/README.md tells what each one does.
#
# Everything is compiled with coverage counters, with the warnings of the project as errors.

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "LOOM_FUZZ needs clang++; apt-get install clang libclang-rt-14-dev")
endif()
if(NOT LOOM_SANITIZE)
  message(FATAL_ERROR "LOOM_FUZZ needs LOOM_SANITIZE=ON")
endif()

# For all that is linked into a fuzzer. Only the fuzzers are built in such a build, no modules.
target_compile_options(project_settings INTERFACE -fsanitize=fuzzer-no-link)

add_custom_target(fuzzers)

# add_fuzzer(<target> [<source, library or object library>...])
function(add_fuzzer target)
  add_executable(${target}_fuzz tests/fuzz/${target}_fuzz.cpp)
  target_link_libraries(${target}_fuzz PRIVATE project_settings ${ARGN})
  target_link_options(${target}_fuzz PRIVATE -fsanitize=fuzzer)
  set_target_properties(
    ${target}_fuzz PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/fuzzers"
                              OUTPUT_NAME ${target})
  add_dependencies(fuzzers ${target}_fuzz)
endfunction()

# The core of the source scanner, which knows no Python.
file(GLOB scanner_core CONFIGURE_DEPENDS loom/_pyscan/*.cpp)
add_library(scanner_core OBJECT ${scanner_core})
target_link_libraries(scanner_core PUBLIC project_settings)

add_fuzzer(bytescan)
add_fuzzer(literals)
add_fuzzer(search)
add_fuzzer(names)
add_fuzzer(scan scanner_core)
add_fuzzer(packinfo scanner_core)
# These start an interpreter.
add_fuzzer(utf8 strutils_objects pyrt Python::Python)
add_fuzzer(fstrings extension_settings Python::Python)
add_fuzzer(fastaccess _fastaccess_objects pyrt Python::Python)
