# Each examples/<stem>.cpp is a program a user copies from. It links the shared library exactly
# as an outside program would, so hidden symbols it must not use fail the build here first.
# As a test it must exit 0, also with no instrument attached.

file(GLOB zeptick_example_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/examples/*.cpp")
foreach(source IN LISTS zeptick_example_sources)
  get_filename_component(stem "${source}" NAME_WE)
  set(target example_${stem})
  add_executable(${target} "${source}")
  target_link_libraries(${target} PRIVATE Zeptick::zeptick)
  zeptick_set_warnings(${target})
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/examples")
  if(ZEPTICK_BUILD_TESTS)
    add_test(NAME ${target} COMMAND ${target})
    set_tests_properties(${target} PROPERTIES LABELS examples TIMEOUT 300)
  endif()
endforeach()
