# Each bench/<stem>.cpp becomes bench_<stem>, collected in <build>/bench/ where `make bench`
# runs them all. They link the static library so they can time internal pieces directly.

find_package(benchmark REQUIRED)

file(GLOB zeptick_bench_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/bench/*.cpp")
foreach(source IN LISTS zeptick_bench_sources)
  get_filename_component(stem "${source}" NAME_WE)
  set(target bench_${stem})
  add_executable(${target} "${source}")
  target_link_libraries(${target} PRIVATE zeptick_internal zeptick_recording benchmark::benchmark)
  # The streaming doubles of tests/support serve the benchmarks' taggers too.
  target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
  zeptick_set_warnings(${target})
  # Some read the shared real recordings beside the source tree.
  target_compile_definitions(${target} PRIVATE ZEPTICK_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bench")
endforeach()

# The latency of `zeptick serve` runs its server in-process.
target_link_libraries(bench_serve_latency PRIVATE zeptick_serve)
