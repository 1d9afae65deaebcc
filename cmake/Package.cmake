# What a host is built against in an installed home: find_package(vexadxcom) and pkg-config.
include(CMakePackageConfigHelpers)

set(package_directory "${CMAKE_INSTALL_LIBDIR}/cmake/vexadxcom")
install(EXPORT vexadxcom NAMESPACE vexadxcom:: FILE vexadxcomTargets.cmake DESTINATION "${package_directory}")
write_basic_package_version_file(vexadxcomConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES cmake/vexadxcomConfig.cmake "${PROJECT_BINARY_DIR}/vexadxcomConfigVersion.cmake"
        DESTINATION "${package_directory}")

configure_file(cmake/vexadxcom.pc.in vexadxcom.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/vexadxcom.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(FILES README.md CHANGELOG.md DESTINATION share/doc/vexadx)
install(DIRECTORY docs DESTINATION share/doc/vexadx)
install(DIRECTORY examples/ DESTINATION share/examples/vexadx)
