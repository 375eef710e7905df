# add_abi3_module(<name> DESTINATION <package> SOURCES <file or glob>...)
#
# Builds <name>.abi3.so, which every CPython from 3.12 on loads, out of the given sources and pyrt, and
# installs it into <package>. Its object files stand apart as <name>_objects, so that unit tests link
# the very code that the module holds.

set(LOOM_LIMITED_API 3.12)

add_library(extension_settings INTERFACE)
target_link_libraries(extension_settings INTERFACE project_settings Python::SABIModule)
target_compile_definitions(extension_settings INTERFACE Py_LIMITED_API=0x030c0000)

function(add_abi3_module name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "DESTINATION" "SOURCES")
  file(GLOB sources CONFIGURE_DEPENDS ${ARG_SOURCES})
  if(NOT sources)
    message(FATAL_ERROR "Module ${ARG_DESTINATION}.${name} has no sources")
  endif()

  add_library(${name}_objects OBJECT ${sources})
  target_link_libraries(${name}_objects PUBLIC pyrt)

  python_add_library(${name} MODULE USE_SABI ${LOOM_LIMITED_API} WITH_SOABI)
  target_link_libraries(${name} PRIVATE ${name}_objects)
  add_dependencies(abi3_modules ${name})

  if(LOOM_INPLACE)
    set(output_root "${PROJECT_SOURCE_DIR}")
  else()
    set(output_root "${PROJECT_BINARY_DIR}")
  endif()
  set_target_properties(
    ${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY "${output_root}/${ARG_DESTINATION}")
  install(TARGETS ${name} LIBRARY DESTINATION ${ARG_DESTINATION})
  set_property(GLOBAL APPEND PROPERTY LOOM_MODULES ${name})
endfunction()
