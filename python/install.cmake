# Run by cmake --install: installs l2vfib_emu where the install prefix's
# Python finds packages (PREFIX/bin/python3, else the build's Python, asked
# through site_dir.py), with the metadata that loads its pytest plugin by
# itself. L2VFIB_PY_SOURCE, L2VFIB_PY_INFO and L2VFIB_PY_FALLBACK are set
# by python/CMakeLists.txt.
set(python "${CMAKE_INSTALL_PREFIX}/bin/python3")
if(NOT EXISTS "${python}")
  set(python "${L2VFIB_PY_FALLBACK}")
endif()
execute_process(COMMAND "${python}" "${L2VFIB_PY_SOURCE}/site_dir.py" "${CMAKE_INSTALL_PREFIX}"
  OUTPUT_VARIABLE site OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
if(failed OR site STREQUAL "")
  message(FATAL_ERROR "l2vfib_emu: ${python} named no package directory under ${CMAKE_INSTALL_PREFIX}")
endif()
file(INSTALL "${L2VFIB_PY_SOURCE}/l2vfib_emu" "${L2VFIB_PY_INFO}" DESTINATION "${site}"
  PATTERN __pycache__ EXCLUDE)
