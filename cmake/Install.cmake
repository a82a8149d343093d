# What "cmake --install" puts where; the platform's folders install their own. Everything stays valid when the prefix is
# moved as a whole.
include(CMakePackageConfigHelpers)

set(tarn_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/tarncluster_util)

# The library finds the platform's libraries beside itself, in whatever prefix.
set_target_properties(tarncluster_util PROPERTIES EXPORT_NAME util INSTALL_RPATH "$ORIGIN")
install(TARGETS tarncluster_util EXPORT tarncluster_util LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/tarncluster_util.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# CMake package: find_package(tarncluster_util), target tarncluster::util.
install(EXPORT tarncluster_util FILE tarncluster_utilTargets.cmake NAMESPACE tarncluster::
  DESTINATION ${tarn_package_folder})
configure_package_config_file(cmake/tarncluster_utilConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tarncluster_utilConfig.cmake INSTALL_DESTINATION ${tarn_package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarncluster_utilConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tarncluster_utilConfig.cmake ${PROJECT_BINARY_DIR}/tarncluster_utilConfigVersion.cmake
  DESTINATION ${tarn_package_folder})

# pkg-config file; its prefix is where it lies.
file(RELATIVE_PATH TARN_PREFIX_FROM_PKGCONFIG /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" TARN_PREFIX_FROM_PKGCONFIG "${TARN_PREFIX_FROM_PKGCONFIG}")
configure_file(cmake/tarncluster_util.pc.in ${PROJECT_BINARY_DIR}/tarncluster_util.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarncluster_util.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
