# The reliability campaign's stream runs (tools/reliability/stream/: no loss end to end, disk
# faults, overload), each printing rows of the table that scripts/reliability (make reliability)
# shows. In a folder of their own, apart from the one-file programs of tools/reliability/. Their
# short forms run in the test suite. Not installed.

add_library(zeptick_reliability STATIC
  "${PROJECT_SOURCE_DIR}/tools/reliability/stream/report.cpp"
  "${PROJECT_SOURCE_DIR}/tools/reliability/stream/scratch_dir.cpp"
  "${PROJECT_SOURCE_DIR}/tools/reliability/stream/stream_digest.cpp")
target_include_directories(zeptick_reliability PUBLIC "${PROJECT_SOURCE_DIR}/tools")
target_link_libraries(zeptick_reliability PUBLIC zeptick_internal)
zeptick_set_warnings(zeptick_reliability)

# Beside tools/ in the build tree, so that the programs find the emulator's firmware in share/.
foreach(program no_loss disk_faults overload)
  add_executable(reliability_${program} "${PROJECT_SOURCE_DIR}/tools/reliability/stream/${program}.cpp")
  target_link_libraries(reliability_${program} PRIVATE zeptick_reliability)
  zeptick_set_warnings(reliability_${program})
  set_target_properties(reliability_${program} PROPERTIES
    OUTPUT_NAME ${program} RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/reliability")
endforeach()

if(ZEPTICK_BUILD_TESTS)
  add_test(NAME reliability_no_loss COMMAND reliability_no_loss --tags 2e6 --split-mib 1)
  add_test(NAME reliability_disk_faults COMMAND reliability_disk_faults --mib 4 --kills 1)
  add_test(NAME reliability_overload COMMAND reliability_overload --cycles 3)
  set_tests_properties(reliability_no_loss reliability_disk_faults reliability_overload PROPERTIES
    LABELS reliability TIMEOUT 120)
endif()
