# What `cmake --install` puts in place, besides the programs: the library, its headers, what other
# projects find it by, the udev rule and the manual pages.
include(CMakePackageConfigHelpers)
set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/vexa-usb)

install(TARGETS vexa-usb EXPORT vexa-usb-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT vexa-usb-targets NAMESPACE vexa-usb:: DESTINATION ${packageDir})
install(FILES include/vexa_usb.h ${CMAKE_BINARY_DIR}/include/vexa_usb_config.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

configure_package_config_file(packaging/vexa-usb-config.cmake.in
    packaging/vexa-usb-config.cmake INSTALL_DESTINATION ${packageDir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/vexa-usb-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${CMAKE_BINARY_DIR}/packaging/vexa-usb-config.cmake
    ${CMAKE_BINARY_DIR}/packaging/vexa-usb-config-version.cmake
    DESTINATION ${packageDir})

configure_file(packaging/vexa-usb.pc.in packaging/vexa-usb.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/vexa-usb.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES ${CMAKE_BINARY_DIR}/packaging/70-vexa-usb.rules DESTINATION lib/udev/rules.d)
install(FILES docs/man/vexa-usb.1 docs/man/vexa-usb-sim.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
