# Installs the libraries, the public header, a pkg-config file and a CMake package, so that
# applications build against the SDK with pkg-config (the shared library) or find_package(fsusdk)
# (fsusdk::fsusdk, the static library, or fsusdk::fsusdk_shared), and the docs and examples.
include(CMakePackageConfigHelpers)

install(TARGETS fsusdk fsusdk_shared EXPORT fsusdkTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/fsusdk.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The user's pages and the examples, which build from there as they stand.
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(TARGETS benchkit fsuctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET fsusim)
  install(TARGETS fsusim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(EXPORT fsusdkTargets NAMESPACE fsusdk:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fsusdk)
configure_package_config_file(cmake/fsusdkConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/fsusdkConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fsusdk)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/fsusdkConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fsusdkConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/fsusdkConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fsusdk)

configure_file(cmake/fsusdk.pc.in ${CMAKE_CURRENT_BINARY_DIR}/fsusdk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/fsusdk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
