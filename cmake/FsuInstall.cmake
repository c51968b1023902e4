# Installs the libraries, the public header, a pkg-config file and a CMake package, so that
# applications build against the SDK with pkg-config (the shared library) or find_package(fsusdk)
# (fsusdk::fsusdk, the static library, or fsusdk::fsusdk_shared), and the docs and examples.
include(CMakePackageConfigHelpers)

#
# Each file belongs to one of four parts, which become the Debian packages (scripts/packages.sh):
# runtime (libfsusdk1: the shared library), dev (libfsusdk-dev: header, static library, link
# name, pkg-config, CMake package, docs and examples), tools (fsu-tools: benchkit and the
# one-shot tools, linked with the static library) and sim (fsusim: the simulator).
install(TARGETS fsusdk fsusdk_shared EXPORT fsusdkTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/fsusdk.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
# The user's pages and the examples, which build from there as they stand.
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT dev)
install(TARGETS benchkit fsuctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
if(TARGET fsusim)
  install(TARGETS fsusim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT sim)
endif()

install(EXPORT fsusdkTargets NAMESPACE fsusdk:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fsusdk COMPONENT dev)
configure_package_config_file(cmake/fsusdkConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/fsusdkConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fsusdk)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/fsusdkConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fsusdkConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/fsusdkConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fsusdk COMPONENT dev)

# The pkg-config file finds the prefix from its own place, so a moved install still works:
# ../.. under lib/pkgconfig, ../../.. under a multiarch lib/x86_64-linux-gnu/pkgconfig.
file(RELATIVE_PATH FSU_PC_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
configure_file(cmake/fsusdk.pc.in ${CMAKE_CURRENT_BINARY_DIR}/fsusdk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fsusdk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# Debian packages, one per part, for the processor of the build (amd64 here, armhf for the
# board's cross build). Made by `cpack` in a build configured with CMAKE_INSTALL_PREFIX=/usr,
# so that the libraries land in the multiarch folder (/usr/lib/arm-linux-gnueabihf/).
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
  set(FSU_DEB_ARCH armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  set(FSU_DEB_ARCH amd64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(FSU_DEB_ARCH arm64)
else()
  set(FSU_DEB_ARCH ${CMAKE_SYSTEM_PROCESSOR})
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME fsusdk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "FSU SDK team <fsu-sdk@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
if(TARGET fsusim)
  list(APPEND CPACK_COMPONENTS_ALL sim)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${FSU_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION embedded)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://localhost/fsusdk")
# The programs need only the C and C++ runtimes of the system (Debian 12 or later).
set(FSU_DEB_RUNTIME "libc6 (>= 2.36), libstdc++6 (>= 12)")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libfsusdk${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${FSU_DEB_RUNTIME}")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Board-support SDK of the field supervision unit: shared library")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libfsusdk-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libfsusdk${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Board-support SDK of the field supervision unit: header, static library, pkg-config and CMake files, docs and examples")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME fsu-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${FSU_DEB_RUNTIME}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "The unit's test console benchkit and its one-shot command-line tools")
set(CPACK_DEBIAN_SIM_PACKAGE_NAME fsusim)
set(CPACK_DEBIAN_SIM_PACKAGE_DEPENDS "${FSU_DEB_RUNTIME}")
# The simulator links Debian's cpp-httplib and yaml-cpp in a native build: dpkg-shlibdeps names
# their packages (a cross build's simulator has neither).
if(NOT CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_SIM_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_COMPONENT_SIM_DESCRIPTION "Simulator of the field supervision unit's board, for applications without hardware")
include(CPack)
