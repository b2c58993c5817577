# The Python package: a pybind11 extension over the shared library plus a pure-Python layer,
# laid out in <build>/python/zeptick so that PYTHONPATH=<build>/python imports it.
#
# Built against Debian's interpreter, named explicitly: the python3 first on PATH may be another
# interpreter without Debian's numpy and pybind11. A sanitized extension cannot load into an
# unsanitized interpreter, so sanitizer builds leave the package out.

option(ZEPTICK_BUILD_PYTHON "Build the Python package" ON)
set(ZEPTICK_PYTHON_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Interpreter the package is built for")

if(NOT ZEPTICK_BUILD_PYTHON OR NOT ZEPTICK_SANITIZE STREQUAL "")
  return()
endif()

set(Python_EXECUTABLE "${ZEPTICK_PYTHON_EXECUTABLE}")
find_package(Python 3 COMPONENTS Interpreter Development.Module NumPy)
find_package(pybind11 CONFIG)
if(NOT Python_FOUND OR NOT pybind11_FOUND)
  message(WARNING "Python package skipped: ${ZEPTICK_PYTHON_EXECUTABLE} with numpy and pybind11 not found")
  return()
endif()

set(zeptick_python_dir "${PROJECT_BINARY_DIR}/python/zeptick")
file(GLOB zeptick_python_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/python/src/*.cpp")
pybind11_add_module(zeptick_python MODULE ${zeptick_python_sources})
target_link_libraries(zeptick_python PRIVATE Zeptick::zeptick)
target_include_directories(zeptick_python PRIVATE "${PROJECT_SOURCE_DIR}/python/src")
zeptick_set_warnings(zeptick_python)
set_target_properties(zeptick_python PROPERTIES
  OUTPUT_NAME _zeptick
  LIBRARY_OUTPUT_DIRECTORY "${zeptick_python_dir}"
  # After install the library is found relative to the package (lib/python3/dist-packages/
  # zeptick), whatever the prefix; in the build tree through the build RPATH.
  INSTALL_RPATH "$ORIGIN/../../..;${CMAKE_INSTALL_FULL_LIBDIR}")

# The pure-Python files are copied next to the extension at every build.
file(GLOB zeptick_python_files CONFIGURE_DEPENDS
  "${PROJECT_SOURCE_DIR}/python/zeptick/*.py" "${PROJECT_SOURCE_DIR}/python/zeptick/*.pyi"
  "${PROJECT_SOURCE_DIR}/python/zeptick/py.typed")
add_custom_command(TARGET zeptick_python POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E copy_if_different ${zeptick_python_files} "${zeptick_python_dir}"
  VERBATIM)

# Type stubs of the extension for editors, generated from its signatures by Debian's stubgen.
find_program(ZEPTICK_STUBGEN stubgen)
if(ZEPTICK_STUBGEN)
  add_custom_command(TARGET zeptick_python POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E env "PYTHONPATH=${PROJECT_BINARY_DIR}/python"
            "${Python_EXECUTABLE}" "${ZEPTICK_STUBGEN}" -q -p zeptick._zeptick
            -o "${PROJECT_BINARY_DIR}/python"
    VERBATIM)
  install(FILES "${zeptick_python_dir}/_zeptick.pyi"
    DESTINATION "${ZEPTICK_PYTHON_INSTALL_DIR}/zeptick" OPTIONAL)
endif()

# Installed where Debian's interpreter looks for packages of /usr/local (or of the prefix).
execute_process(
  COMMAND "${Python_EXECUTABLE}" -c
    "import sys; print(f'lib/python3/dist-packages' if sys.prefix == '/usr' else f'lib/python{sys.version_info[0]}.{sys.version_info[1]}/site-packages')"
  OUTPUT_VARIABLE zeptick_python_site OUTPUT_STRIP_TRAILING_WHITESPACE)
set(ZEPTICK_PYTHON_INSTALL_DIR "${zeptick_python_site}" CACHE STRING
  "Install folder of the Python package, relative to the prefix")
install(TARGETS zeptick_python LIBRARY DESTINATION "${ZEPTICK_PYTHON_INSTALL_DIR}/zeptick")
install(FILES ${zeptick_python_files} DESTINATION "${ZEPTICK_PYTHON_INSTALL_DIR}/zeptick")

if(ZEPTICK_BUILD_TESTS)
  # The build tree's package, firmware from the source tree, and plots without a display.
  set(zeptick_python_test_env
    "PYTHONPATH=${PROJECT_BINARY_DIR}/python"
    "ZEPTICK_BUILD_DIR=${PROJECT_BINARY_DIR}"
    "ZEPTICK_SOURCE_DIR=${PROJECT_SOURCE_DIR}"
    "ZEPTICK_BASE_DIRECTORY=${PROJECT_SOURCE_DIR}"
    "ZEPTICK_FIRMWARE_SUBDIRECTORY=firmware"
    "MPLBACKEND=Agg")
  add_test(NAME python_tests
    COMMAND "${Python_EXECUTABLE}" -m pytest -q -p no:cacheprovider "${PROJECT_SOURCE_DIR}/tests/python"
    WORKING_DIRECTORY "${PROJECT_BINARY_DIR}")
  set_tests_properties(python_tests PROPERTIES
    LABELS "python"
    TIMEOUT 600
    RESOURCE_LOCK emulator
    ENVIRONMENT "${zeptick_python_test_env}")
endif()

if(ZEPTICK_BUILD_TESTS)
  # The C++ side of the binding tests: the same measurements on the same recording.
  add_executable(zeptick-python-reference "${PROJECT_SOURCE_DIR}/tests/python/reference_results.cpp")
  target_link_libraries(zeptick-python-reference PRIVATE Zeptick::zeptick)
  zeptick_set_warnings(zeptick-python-reference)
  set_target_properties(zeptick-python-reference PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tests")
endif()

if(ZEPTICK_BUILD_TESTS)
  # The examples a user copies from: the script, and the notebook run by a Jupyter kernel.
  add_test(NAME example_python_rates
    COMMAND "${Python_EXECUTABLE}" "${PROJECT_SOURCE_DIR}/examples/python/rates_and_correlation.py"
            "${PROJECT_BINARY_DIR}/python/rates_and_correlation.png")
  add_test(NAME example_python_notebook
    COMMAND "${Python_EXECUTABLE}" "${PROJECT_SOURCE_DIR}/tests/python/run_notebook.py"
            "${PROJECT_SOURCE_DIR}/examples/python/live_correlation.ipynb")
  set_tests_properties(example_python_rates example_python_notebook PROPERTIES
    LABELS "python;examples" TIMEOUT 300 RESOURCE_LOCK emulator
    ENVIRONMENT "${zeptick_python_test_env}")
endif()
