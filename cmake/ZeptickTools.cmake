# Each tools/<stem>.cpp becomes the program zeptick-<stem> (dashes for underscores), built into
# <build>/tools/. Tools link the static library: they may use internal pieces such as the file
# writer directly.

# Synthetic recordings for the generator tool, the benchmarks and the tests; not part of the
# library users get.
add_library(zeptick_recording STATIC "${PROJECT_SOURCE_DIR}/tools/recording/recording_generator.cpp")
target_include_directories(zeptick_recording PUBLIC "${PROJECT_SOURCE_DIR}/tools")
target_link_libraries(zeptick_recording PUBLIC zeptick_internal)
zeptick_set_warnings(zeptick_recording)

file(GLOB zeptick_tool_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tools/*.cpp")
foreach(source IN LISTS zeptick_tool_sources)
  get_filename_component(stem "${source}" NAME_WE)
  string(REPLACE "_" "-" program "zeptick-${stem}")
  add_executable(${program} "${source}")
  target_link_libraries(${program} PRIVATE zeptick_internal zeptick_recording)
  target_include_directories(${program} PRIVATE "${PROJECT_SOURCE_DIR}/tools")
  zeptick_set_warnings(${program})
  set_target_properties(${program} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tools")
endforeach()

# The command-line tool: one file per subcommand under tools/zeptick/.
file(GLOB zeptick_cli_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tools/zeptick/*.cpp")
add_executable(zeptick_cli ${zeptick_cli_sources})
target_link_libraries(zeptick_cli PRIVATE zeptick_internal PkgConfig::ZEPTICK_HDF5)
zeptick_set_warnings(zeptick_cli)
set_target_properties(zeptick_cli PROPERTIES OUTPUT_NAME zeptick RUNTIME_OUTPUT_DIRECTORY
                                             "${PROJECT_BINARY_DIR}/tools")
install(TARGETS zeptick_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

if(ZEPTICK_BUILD_TESTS)
  add_test(NAME cli COMMAND /usr/bin/python3 "${PROJECT_SOURCE_DIR}/tests/cli/test_cli.py"
                            "${PROJECT_BINARY_DIR}/tools")
  add_test(NAME cli_foreign COMMAND /usr/bin/python3 "${PROJECT_SOURCE_DIR}/tests/cli/test_foreign_cli.py"
                                    "${PROJECT_BINARY_DIR}/tools")
endif()
