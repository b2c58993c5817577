# Each tools/<stem>.cpp becomes the program zeptick-<stem> (dashes for underscores), built into
# <build>/tools/. Tools link the static library: they may use internal pieces such as the file
# writer directly.

file(GLOB zeptick_tool_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tools/*.cpp")
foreach(source IN LISTS zeptick_tool_sources)
  get_filename_component(stem "${source}" NAME_WE)
  string(REPLACE "_" "-" program "zeptick-${stem}")
  add_executable(${program} "${source}")
  target_link_libraries(${program} PRIVATE zeptick_internal)
  target_include_directories(${program} PRIVATE "${PROJECT_SOURCE_DIR}/tools")
  zeptick_set_warnings(${program})
  set_target_properties(${program} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tools")
endforeach()
