# Language, warnings and sanitizers, the same for modules and unit tests.

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Kind of build" FORCE)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(LOOM_LTO)
  include(CheckIPOSupported)
  check_ipo_supported(LANGUAGES CXX)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
endif()

add_library(project_settings INTERFACE)
target_compile_options(
  project_settings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
target_include_directories(project_settings INTERFACE "${PROJECT_SOURCE_DIR}")

if(LOOM_COVERAGE)
  target_compile_options(project_settings INTERFACE --coverage -O0)
  target_link_options(project_settings INTERFACE --coverage)
endif()

if(LOOM_SANITIZE)
  # All diagnostics end the process, so that no test passes over one.
  set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # While these are on, GCC takes no comparison with null for a constant, and so rejects constant
    # expressions that are valid. A use of null still ends in a report of the address sanitizer.
    list(APPEND sanitizers -fno-sanitize=null,nonnull-attribute,returns-nonnull-attribute)
  endif()
  target_compile_options(project_settings INTERFACE ${sanitizers} -g)
  target_compile_definitions(project_settings INTERFACE _GLIBCXX_ASSERTIONS)
  target_link_options(project_settings INTERFACE ${sanitizers})
endif()
