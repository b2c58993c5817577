# libzeptick_emulator.so: the emulated boards behind the FrontPanel C symbols, so that the
# device layer's dlopen path runs in the tests. It links its own copy of the library objects,
# hence its own boards; only the C symbols of src/emulator/control/library/ are visible.

add_library(zeptick_emulator SHARED "${PROJECT_SOURCE_DIR}/src/emulator/control/library/frontpanel_exports.cpp")
target_link_libraries(zeptick_emulator PRIVATE zeptick_internal)
set_target_properties(zeptick_emulator PROPERTIES
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
zeptick_set_warnings(zeptick_emulator)
