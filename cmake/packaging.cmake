# Debian packages, one per install component (cpack -G DEB in a build tree):
#   orch          -> librix-autosync-orch1      the library, its SONAME link
#   orch_dev      -> librix-autosync-orch-dev   headers, .so link, CMake package, rix_autosync_orch.pc
#   platform      -> librix-utils1              the stand-in platform libraries
#   platform_dev  -> librix-utils-dev           their headers, .so links, CMake targets, rix_platform.pc
# The architecture follows the compiler, so the armhf build makes armhf packages.

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(_rix_deb_arch amd64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(_rix_deb_arch arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  # gnueabihf: hard-float ABI (armhf); otherwise soft-float (armel).
  if(CMAKE_C_COMPILER MATCHES "gnueabihf" OR CMAKE_LIBRARY_ARCHITECTURE MATCHES "gnueabihf")
    set(_rix_deb_arch armhf)
  else()
    set(_rix_deb_arch armel)
  endif()
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^i.86$")
  set(_rix_deb_arch i386)
elseif(NOT CMAKE_CROSSCOMPILING)
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE _rix_deb_arch
    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT _rix_deb_arch)
  message(STATUS "No Debian architecture for ${CMAKE_SYSTEM_PROCESSOR}: no packages")
  return()
endif()

set(_rix_soversion ${PROJECT_VERSION_MAJOR})
set(_rix_ver ${PROJECT_VERSION})
set(_rix_orch_pkg librix-autosync-orch${_rix_soversion})
set(_rix_plat_pkg librix-utils1)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME librix-autosync-orch)
set(CPACK_PACKAGE_VENDOR "librix_autosync_orch")
set(RIX_DEB_MAINTAINER "librix_autosync_orch maintainers <rix-autosync-orch@localhost>"
  CACHE STRING "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${RIX_DEB_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${_rix_ver})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES OFF)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL orch orch_dev platform platform_dev)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${_rix_deb_arch})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps cannot read the cross build's libraries on the build host: the C and C++
# runtimes are named here, from the libraries' NEEDED entries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_ORCH_PACKAGE_NAME ${_rix_orch_pkg})
set(CPACK_DEBIAN_ORCH_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_ORCH_PACKAGE_DEPENDS "libc6, libgcc-s1, ${_rix_plat_pkg} (>= ${_rix_ver})")
set(CPACK_COMPONENT_ORCH_DESCRIPTION
  "AutoSync orchestrator of the platform's control-plane modules\n The shared library librix_autosync_orch.so.${_rix_soversion}.")

set(CPACK_DEBIAN_ORCH_DEV_PACKAGE_NAME librix-autosync-orch-dev)
set(CPACK_DEBIAN_ORCH_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_ORCH_DEV_PACKAGE_DEPENDS "${_rix_orch_pkg} (= ${_rix_ver}), librix-utils-dev (>= ${_rix_ver})")
set(CPACK_COMPONENT_ORCH_DEV_DESCRIPTION
  "AutoSync orchestrator, development files\n Public C headers, the CMake package rix_autosync_orch and rix_autosync_orch.pc.")

set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME ${_rix_plat_pkg})
set(CPACK_DEBIAN_PLATFORM_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_DEPENDS "libc6, libgcc-s1, libstdc++6")
set(CPACK_COMPONENT_PLATFORM_DESCRIPTION
  "Stand-in platform libraries for the AutoSync orchestrator\n librix_utils_base, librix_utils_eal and librix_utils_smooth with their test kit,\n for hosts without the real platform.")

set(CPACK_DEBIAN_PLATFORM_DEV_PACKAGE_NAME librix-utils-dev)
set(CPACK_DEBIAN_PLATFORM_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PLATFORM_DEV_PACKAGE_DEPENDS "${_rix_plat_pkg} (= ${_rix_ver})")
set(CPACK_COMPONENT_PLATFORM_DEV_DESCRIPTION
  "Stand-in platform libraries, development files\n Headers, CMake targets and rix_platform.pc of the stand-in platform.")

include(CPack)
