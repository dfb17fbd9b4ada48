# What hosts get from `cmake --install`: the CMake package (Sonorell::sonorell), sonorell.pc, and
# the Debian package that `cpack` builds from the same install rules. The targets' own install
# rules live next to them (src/, tools/).
include(CMakePackageConfigHelpers)

# The version hosts see at run time comes from version.h; the packages must say the same.
file(STRINGS ${PROJECT_SOURCE_DIR}/include/sonorell/version.h _sonorell_version_line
     REGEX "kSonorellVersion = ")
string(REGEX MATCH "\"([^\"]+)\"" _ "${_sonorell_version_line}")
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "include/sonorell/version.h says ${CMAKE_MATCH_1}, project() says "
                      "${PROJECT_VERSION}: change both")
endif()

# CMake package.
set(SONORELL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Sonorell)
install(EXPORT SonorellTargets NAMESPACE Sonorell:: FILE SonorellTargets.cmake
        DESTINATION ${SONORELL_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/SonorellConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/SonorellConfig.cmake
                              INSTALL_DESTINATION ${SONORELL_CMAKE_DIR})
# The SONAME carries the major version, so any 6.x library serves a host built for 6.y <= x.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/SonorellConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/SonorellConfig.cmake
              ${PROJECT_BINARY_DIR}/SonorellConfigVersion.cmake
        DESTINATION ${SONORELL_CMAKE_DIR})

# pkg-config. Paths are relative to the .pc file itself, so the file stays right when the tree
# is installed with `cmake --install --prefix` elsewhere than configured, or unpacked.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(SONORELL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(SONORELL_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(SONORELL_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH _pc_up "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" _pc_up "${_pc_up}")
  set(SONORELL_PC_PREFIX "\${pcfiledir}/${_pc_up}")
  set(SONORELL_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(SONORELL_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/sonorell.pc.in ${PROJECT_BINARY_DIR}/sonorell.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sonorell.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Debian package: one package with the library, the headers, the CMake and pkg-config files and
# both programs. dpkg-shlibdeps finds the shared libraries they need; what is loaded by name at
# run time (GStreamer plugins, espeak-ng for the demo book) is listed by hand.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sonorell)
set(CPACK_PACKAGE_VENDOR "Sonorell")
set(CPACK_PACKAGE_CONTACT "Sonorell maintainers <maintainers@sonorell.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "audiobook download and playback engine")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "libsonorell downloads audiobooks as background transfers, plays chapters from disk or\n"
  "streamed, and records listening analytics. This package holds the shared library, its\n"
  "C++ headers with CMake and pkg-config files, the sonorell command-line host and the\n"
  "sonorell-content-server reference content service.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A shlibs file, so that packages built against this one depend on it; with it CPack also
# registers the ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_DEPENDS "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "ca-certificates, espeak-ng")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
