# Install step of the Python package, run by `cmake --install` (and by CPack)
# with the prefix of that run. Set before inclusion: VANTREL_PY_SOURCE (the
# package's source directory), VANTREL_PY_BINARY (a scratch directory),
# VANTREL_PY_DIR (install directory relative to the prefix, empty: automatic),
# VANTREL_PY_SITE (pythonX.Y of the interpreter) and VANTREL_PY_LIBDIR (the
# library's directory relative to the prefix).
#
# Automatic directory, chosen so that Debian's python3 finds the package
# without PYTHONPATH:
#   /usr        lib/python3/dist-packages        (the .deb)
#   /usr/local  lib/pythonX.Y/dist-packages      (cmake --install's default)
#   ~/.local    lib/pythonX.Y/site-packages      (a user's own install)
#   any other   lib/python3/dist-packages        (put it on PYTHONPATH)
set(pydir "${VANTREL_PY_DIR}")
if(pydir STREQUAL "")
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
    set(pydir "lib/${VANTREL_PY_SITE}/dist-packages")
  elseif(DEFINED ENV{HOME} AND CMAKE_INSTALL_PREFIX STREQUAL "$ENV{HOME}/.local")
    set(pydir "lib/${VANTREL_PY_SITE}/site-packages")
  else()
    set(pydir "lib/python3/dist-packages")
  endif()
endif()
set(dest "${CMAKE_INSTALL_PREFIX}/${pydir}/vantrel")
# The package finds the library through the relative path from its own
# directory to the library directory, whatever the prefix.
file(RELATIVE_PATH up "/p/${pydir}/vantrel" "/p/${VANTREL_PY_LIBDIR}")
file(WRITE "${VANTREL_PY_BINARY}/_install_paths.py"
     "# Written by the CMake install: where the library lies relative to this package.\n"
     "LIBRARY_DIR = \"${up}\"\n")
file(INSTALL "${VANTREL_PY_SOURCE}/" DESTINATION "${dest}"
     FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
file(INSTALL "${VANTREL_PY_BINARY}/_install_paths.py" DESTINATION "${dest}")
