# GoogleTest suites: one executable per folder tests/<name>/ holding *_test.cpp files, named
# <name>_tests. A new folder or test file is picked up on the next build without editing CMake.

find_package(GTest REQUIRED)
include(GoogleTest)

# Folders whose tests drive worker threads; `make test` reruns exactly these under TSan.
set(ZEPTICK_CONCURRENCY_TEST_FOLDERS core measurements integration emulator files engine)

# Folders under tests/ that hold no suite of their own.
set(zeptick_non_suite_folders support install)

# Shared fixtures, fakes and helpers; included as "support/<file>.h".
file(GLOB zeptick_test_support_sources CONFIGURE_DEPENDS
  "${PROJECT_SOURCE_DIR}/tests/support/*.cpp")
if(zeptick_test_support_sources)
  add_library(zeptick_test_support STATIC ${zeptick_test_support_sources})
  target_include_directories(zeptick_test_support PUBLIC "${PROJECT_SOURCE_DIR}/tests")
  target_link_libraries(zeptick_test_support PUBLIC zeptick_internal zeptick_recording GTest::gtest
    GTest::gmock)
  zeptick_set_warnings(zeptick_test_support)
else()
  add_library(zeptick_test_support INTERFACE)
  target_include_directories(zeptick_test_support INTERFACE "${PROJECT_SOURCE_DIR}/tests")
  target_link_libraries(zeptick_test_support INTERFACE zeptick_internal zeptick_recording
    GTest::gtest GTest::gmock)
endif()

# Builds everything the TSan pass runs, and nothing else, to keep that build short.
add_custom_target(concurrency_tests)

function(zeptick_add_test_suite name)
  file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tests/${name}/*_test.cpp")
  if(NOT sources)
    return()
  endif()
  set(target ${name}_tests)
  add_executable(${target} ${sources})
  target_link_libraries(${target} PRIVATE
    zeptick_internal zeptick_test_support GTest::gtest_main GTest::gmock)
  zeptick_set_warnings(${target})
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tests")
  # Firmware files under the source tree, and the emulator library for the dlopen path.
  target_compile_definitions(${target} PRIVATE
    ZEPTICK_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    ZEPTICK_EMULATOR_LIBRARY="$<TARGET_FILE:zeptick_emulator>")
  add_dependencies(${target} zeptick_emulator)

  set(labels ${name})
  if(name IN_LIST ZEPTICK_CONCURRENCY_TEST_FOLDERS)
    list(APPEND labels concurrency)
    add_dependencies(concurrency_tests ${target})
  endif()
  # PRE_TEST: listing the tests at build time would run sanitized binaries during the build.
  gtest_discover_tests(${target}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 120
    TEST_LIST ${target}_TESTS
    PROPERTIES TIMEOUT 300)
  # gtest_discover_tests splits a list-valued property into separate words (CMake 3.25), so a
  # second label would be lost. Instead CTest runs this script after the discovery script above
  # (include files run in the order added) and labels the tests it found.
  set(label_script "${PROJECT_BINARY_DIR}/${target}_labels.cmake")
  file(CONFIGURE OUTPUT "${label_script}" @ONLY CONTENT [[
if(@target@_TESTS)
  set_tests_properties(${@target@_TESTS} PROPERTIES LABELS "@labels@")
endif()
]])
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${label_script}")
endfunction()

file(GLOB zeptick_test_folders LIST_DIRECTORIES true CONFIGURE_DEPENDS
  "${PROJECT_SOURCE_DIR}/tests/*")
foreach(folder IN LISTS zeptick_test_folders)
  get_filename_component(name "${folder}" NAME)
  if(IS_DIRECTORY "${folder}" AND NOT name IN_LIST zeptick_non_suite_folders)
    zeptick_add_test_suite(${name})
  endif()
endforeach()

# Installs into a scratch prefix and builds a consumer against it through pkg-config and
# find_package. Sanitized builds would need the runtime in the consumer too, so they skip it.
if(ZEPTICK_SANITIZE STREQUAL "")
  add_test(NAME install_consumer
    COMMAND bash "${PROJECT_SOURCE_DIR}/tests/install/consumer_test.sh"
            "${PROJECT_BINARY_DIR}" "${PROJECT_SOURCE_DIR}" "${PROJECT_VERSION}")
  set_tests_properties(install_consumer PROPERTIES LABELS install TIMEOUT 300)
endif()

find_program(CLANG_FORMAT_PROGRAM clang-format)
if(CLANG_FORMAT_PROGRAM)
  add_test(NAME format_check COMMAND "${PROJECT_SOURCE_DIR}/scripts/format" --check)
  set_tests_properties(format_check PROPERTIES
    LABELS format ENVIRONMENT "CLANG_FORMAT=${CLANG_FORMAT_PROGRAM}")
else()
  message(STATUS "clang-format not found: format_check is not registered")
endif()
