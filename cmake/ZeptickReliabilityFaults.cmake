# Long reliability runs on the emulated instrument: each tools/reliability/<name>.cpp becomes
# <build>/reliability/<name>, linked to the static library for the emulator's fault controls.
# Not installed; scripts/reliability-faults runs their long forms. The churn soak also runs for a
# few seconds as a test labelled concurrency, so the ThreadSanitizer pass covers it.

file(GLOB zeptick_reliability_sources CONFIGURE_DEPENDS
  "${PROJECT_SOURCE_DIR}/tools/reliability/*.cpp")
add_custom_target(reliability_programs)
foreach(source IN LISTS zeptick_reliability_sources)
  get_filename_component(name "${source}" NAME_WE)
  add_executable(${name} "${source}")
  target_link_libraries(${name} PRIVATE zeptick_internal)
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tools")
  # The emulator's firmware files under the source tree.
  target_compile_definitions(${name} PRIVATE ZEPTICK_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  zeptick_set_warnings(${name})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY
                                           "${PROJECT_BINARY_DIR}/reliability")
  add_dependencies(reliability_programs ${name})
endforeach()

if(ZEPTICK_BUILD_TESTS AND TARGET churn_soak)
  add_test(NAME churn_soak_short COMMAND churn_soak --seconds 3 --free-running 1)
  set_tests_properties(churn_soak_short PROPERTIES LABELS "reliability;concurrency" TIMEOUT 120)
  add_dependencies(concurrency_tests churn_soak)
endif()
