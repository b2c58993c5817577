# Installs the public headers, the shared library, a CMake package (find_package(Zeptick) gives
# Zeptick::zeptick) and a pkg-config file. The static zeptick_internal stays in the build tree.

include(CMakePackageConfigHelpers)

set(ZEPTICK_CMAKE_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Zeptick")

install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/zeptick"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  FILES_MATCHING PATTERN "*.h")

install(TARGETS zeptick EXPORT ZeptickTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")

# The emulator's firmware files, where the library looks when no other directory is set.
file(GLOB zeptick_firmware_files "${PROJECT_SOURCE_DIR}/firmware/*.bit")
install(FILES ${zeptick_firmware_files} DESTINATION "${CMAKE_INSTALL_DATADIR}/zeptick/firmware")
foreach(firmware IN LISTS zeptick_firmware_files)
  get_filename_component(firmware_name "${firmware}" NAME)
  configure_file("${firmware}" "${PROJECT_BINARY_DIR}/share/zeptick/firmware/${firmware_name}"
    COPYONLY)
endforeach()

install(EXPORT ZeptickTargets
  NAMESPACE Zeptick::
  DESTINATION "${ZEPTICK_CMAKE_INSTALL_DIR}")

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/ZeptickConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/ZeptickConfig.cmake"
  INSTALL_DESTINATION "${ZEPTICK_CMAKE_INSTALL_DIR}")
# The soname carries the major version, so only the same major version is compatible.
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/ZeptickConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/ZeptickConfig.cmake"
  "${PROJECT_BINARY_DIR}/ZeptickConfigVersion.cmake"
  DESTINATION "${ZEPTICK_CMAKE_INSTALL_DIR}")

# The .pc file locates the prefix relative to itself, so that `cmake --install --prefix DIR`
# into any directory yields a working file, not one pointing at the configure-time prefix.
set(zeptick_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR "zeptick.pc needs CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR "
                      "relative to the install prefix")
endif()
file(RELATIVE_PATH zeptick_pc_up "/prefix/${zeptick_pc_dir}" "/prefix")
string(REGEX REPLACE "/$" "" zeptick_pc_up "${zeptick_pc_up}")
set(ZEPTICK_PC_PREFIX "\${pcfiledir}/${zeptick_pc_up}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/zeptick.pc.in" "${PROJECT_BINARY_DIR}/zeptick.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/zeptick.pc" DESTINATION "${zeptick_pc_dir}")
