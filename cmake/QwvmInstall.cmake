# cmake --install: headers, both libraries, a CMake package config and a
# pkg-config file.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/qwvm DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS qwvm qwvm_static EXPORT qwvmTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS qwvm_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT qwvmTargets NAMESPACE qwvm:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qwvm)

configure_package_config_file(cmake/qwvmConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/qwvmConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qwvm)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qwvmConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qwvmConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/qwvmConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qwvm)

configure_file(cmake/qwvm.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qwvm.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qwvm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
