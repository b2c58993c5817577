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

# The page of `zeptick serve`: its own files and the chart library, pinned in web/'s lockfile and
# installed by npm, compiled into the program.
find_program(NPM_PROGRAM npm REQUIRED)
set(zeptick_web "${PROJECT_SOURCE_DIR}/web")
add_custom_command(
  OUTPUT "${zeptick_web}/node_modules/.package-lock.json"
  COMMAND ${CMAKE_COMMAND} -E env PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1
          ${NPM_PROGRAM} ci --no-audit --no-fund --loglevel=error
  DEPENDS "${zeptick_web}/package-lock.json"
  WORKING_DIRECTORY "${zeptick_web}"
  COMMENT "Installing the page's npm packages")
set(zeptick_page_files "${zeptick_web}/index.html" "${zeptick_web}/app.js" "${zeptick_web}/style.css")
# The chart library's files exist only once npm has run, and keep the package's own old dates:
# the build depends on npm's stamp for them, not on the files themselves.
set(zeptick_web_files ${zeptick_page_files}
  "${zeptick_web}/node_modules/uplot/dist/uPlot.iife.min.js"
  "${zeptick_web}/node_modules/uplot/dist/uPlot.min.css")
set(zeptick_web_source "${PROJECT_BINARY_DIR}/generated/serve_assets.cpp")
add_custom_command(
  OUTPUT "${zeptick_web_source}"
  COMMAND ${CMAKE_COMMAND} "-DOUTPUT=${zeptick_web_source}" "-DFILES=${zeptick_web_files}"
          -P "${PROJECT_SOURCE_DIR}/cmake/EmbedFiles.cmake"
  DEPENDS ${zeptick_page_files} "${zeptick_web}/node_modules/.package-lock.json"
          "${PROJECT_SOURCE_DIR}/cmake/EmbedFiles.cmake"
  COMMENT "Embedding the page of zeptick serve"
  VERBATIM)

# The server behind `zeptick serve`, a library of its own so the latency benchmark can run it
# in-process. Debian's cpp-httplib is compiled, with its options in its pkg-config flags.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
file(GLOB zeptick_serve_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tools/zeptick/serve_*.cpp")
add_library(zeptick_serve STATIC ${zeptick_serve_sources} "${PROJECT_SOURCE_DIR}/tools/zeptick/units.cpp"
  "${zeptick_web_source}")
target_include_directories(zeptick_serve PUBLIC "${PROJECT_SOURCE_DIR}/tools/zeptick")
target_link_libraries(zeptick_serve PUBLIC zeptick_internal PkgConfig::HTTPLIB)
zeptick_set_warnings(zeptick_serve)

# The command-line tool: one file per subcommand under tools/zeptick/.
file(GLOB zeptick_cli_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tools/zeptick/*.cpp")
list(FILTER zeptick_cli_sources EXCLUDE REGEX "/(serve_[a-z_]+|units)\\.cpp$")
add_executable(zeptick_cli ${zeptick_cli_sources})
target_link_libraries(zeptick_cli PRIVATE zeptick_serve zeptick_internal PkgConfig::ZEPTICK_HDF5)
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

if(ZEPTICK_BUILD_TESTS)
  # `zeptick serve` through its API, and through a real browser (Debian's chromium, headless).
  add_test(NAME web_api COMMAND /usr/bin/python3 "${PROJECT_SOURCE_DIR}/tests/web/test_api.py"
                                "${PROJECT_BINARY_DIR}/tools")
  add_test(NAME web_browser COMMAND node "${PROJECT_SOURCE_DIR}/tests/web/browser_test.mjs"
                                    "${PROJECT_BINARY_DIR}/tools" "${PROJECT_BINARY_DIR}/web-artifacts")
  set_tests_properties(web_api PROPERTIES LABELS web TIMEOUT 120)
  set_tests_properties(web_browser PROPERTIES LABELS "web;browser" TIMEOUT 120)
endif()
