# Compiler launcher, sanitizers and warnings shared by every target built here.

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
  set(CMAKE_C_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
endif()

# Sanitizers go on every object and link step, including tests and examples: a sanitized library
# linked into an unsanitized executable misses reports (and TSan reports false races).
if(ZEPTICK_SANITIZE STREQUAL "address")
  set(zeptick_sanitize_flags
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(ZEPTICK_SANITIZE STREQUAL "thread")
  set(zeptick_sanitize_flags -fsanitize=thread)
elseif(NOT ZEPTICK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZEPTICK_SANITIZE must be empty, 'address' or 'thread', not '${ZEPTICK_SANITIZE}'")
endif()
if(zeptick_sanitize_flags)
  add_compile_options(${zeptick_sanitize_flags})
  add_link_options(${zeptick_sanitize_flags})
endif()

# Warnings go on our own targets only, so that a newer compiler's new warnings about someone
# else's code cannot fail a -Werror build.
function(zeptick_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  # Clang checks the locking marks of src/core/annotated_mutex.h.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(ZEPTICK_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
