# Where `cmake --install` and the Debian package put things: the GNU layout, with Debian's
# multiarch library directory under any prefix, so /usr/local and the package's /usr look alike.
if(CMAKE_LIBRARY_ARCHITECTURE AND NOT DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}"
      CACHE PATH "Object code libraries (lib)")
endif()
include(GNUInstallDirs)

# Installed programs find libsonorell relative to themselves, so an unpacked or relocated tree
# (a temporary prefix, `dpkg -x`) runs without LD_LIBRARY_PATH.
file(RELATIVE_PATH SONORELL_BIN_TO_LIB "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set(SONORELL_INSTALL_RPATH "$ORIGIN/${SONORELL_BIN_TO_LIB}")
