# libFuzzer targets. Each tests/fuzz/<name>_fuzzer.cpp becomes <build>/fuzz/<name>_fuzzer, and a
# tests/fuzz/<name>_seeds.cpp beside it becomes <build>/fuzz/<name>_seeds, the program that
# writes the target's seed corpus. The library is compiled once more for them, instrumented for
# coverage and with AddressSanitizer and UndefinedBehaviorSanitizer. `fuzzers` builds them all.

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "ZEPTICK_FUZZ needs clang: configure with CC=clang CXX=clang++")
endif()
if(NOT ZEPTICK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZEPTICK_FUZZ brings its own sanitizers: leave ZEPTICK_SANITIZE empty")
endif()

set(zeptick_fuzz_sanitizers
  -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)

add_library(zeptick_fuzz_objects OBJECT ${zeptick_sources})
target_include_directories(zeptick_fuzz_objects PUBLIC
  "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src")
target_compile_definitions(zeptick_fuzz_objects PRIVATE ZEPTICK_BUILDING_LIBRARY
  ZEPTICK_FIRMWARE_INSTALL_DIR="${CMAKE_INSTALL_FULL_DATADIR}/zeptick/firmware")
target_compile_options(zeptick_fuzz_objects PRIVATE
  -fsanitize=fuzzer-no-link ${zeptick_fuzz_sanitizers})
target_link_libraries(zeptick_fuzz_objects PUBLIC Threads::Threads nlohmann_json::nlohmann_json
  OpenSSL::Crypto PkgConfig::LZ4 PkgConfig::ZEPTICK_HDF5 ${CMAKE_DL_LIBS})
zeptick_set_warnings(zeptick_fuzz_objects)

add_custom_target(fuzzers)

# Targets that check code of a tool rather than of the library build that code in.
set(zeptick_fuzz_tool_serve_request
  "${PROJECT_SOURCE_DIR}/tools/zeptick/serve_request.cpp" "${PROJECT_SOURCE_DIR}/tools/zeptick/units.cpp")

file(GLOB zeptick_fuzzer_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tests/fuzz/*_fuzzer.cpp")
foreach(source IN LISTS zeptick_fuzzer_sources)
  get_filename_component(target "${source}" NAME_WE)
  add_executable(${target} "${source}")
  target_link_libraries(${target} PRIVATE zeptick_fuzz_objects)
  string(REGEX REPLACE "_fuzzer$" "" stem "${target}")
  if(DEFINED zeptick_fuzz_tool_${stem})
    target_sources(${target} PRIVATE ${zeptick_fuzz_tool_${stem}})
    target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}/tools/zeptick")
  endif()
  # Fuzzers may check against the plain models that the tests use.
  target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
  target_compile_options(${target} PRIVATE -fsanitize=fuzzer ${zeptick_fuzz_sanitizers})
  target_link_options(${target} PRIVATE -fsanitize=fuzzer ${zeptick_fuzz_sanitizers})
  zeptick_set_warnings(${target})
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/fuzz")
  add_dependencies(fuzzers ${target})

  string(REGEX REPLACE "_fuzzer\\.cpp$" "_seeds.cpp" seeds_source "${source}")
  if(EXISTS "${seeds_source}")
    string(REGEX REPLACE "_fuzzer$" "_seeds" seeds_target "${target}")
    add_executable(${seeds_target} "${seeds_source}")
    target_link_libraries(${seeds_target} PRIVATE zeptick_fuzz_objects)
    target_compile_options(${seeds_target} PRIVATE ${zeptick_fuzz_sanitizers})
    target_link_options(${seeds_target} PRIVATE ${zeptick_fuzz_sanitizers})
    # Some seeds come from the shared real recordings beside the source tree.
    target_compile_definitions(${seeds_target} PRIVATE ZEPTICK_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
    zeptick_set_warnings(${seeds_target})
    set_target_properties(${seeds_target} PROPERTIES
      RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/fuzz")
    add_dependencies(fuzzers ${seeds_target})
  endif()
endforeach()
