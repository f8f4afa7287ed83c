# What `cmake --install` puts in place, and with which component: runtime (the shared library), system
# (what gives users access to the devices), development, python, tool and simulator.
include(CMakePackageConfigHelpers)
set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/vexa-usb)

install(TARGETS vexa-usb EXPORT vexa-usb-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

configure_file(packaging/70-vexa-usb.rules.in packaging/70-vexa-usb.rules @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/70-vexa-usb.rules
    DESTINATION lib/udev/rules.d COMPONENT system)
install(FILES packaging/tmpfiles.d/vexa-usb.conf DESTINATION lib/tmpfiles.d COMPONENT system)

install(FILES include/vexa_usb.h ${PROJECT_BINARY_DIR}/include/vexa_usb_config.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT vexa-usb-targets NAMESPACE vexa-usb::
    DESTINATION ${packageDir} COMPONENT development)
configure_package_config_file(packaging/vexa-usb-config.cmake.in
    packaging/vexa-usb-config.cmake INSTALL_DESTINATION ${packageDir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/vexa-usb-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/packaging/vexa-usb-config.cmake
    ${PROJECT_BINARY_DIR}/packaging/vexa-usb-config-version.cmake
    DESTINATION ${packageDir} COMPONENT development)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
    PATTERN CMakeLists.txt EXCLUDE PATTERN python EXCLUDE)
# scripts/docs makes them, if it is asked to.
set(docsDir ${PROJECT_SOURCE_DIR}/build/docs)
if(DEFINED ENV{VEXA_BUILD_DIR})
    set(docsDir $ENV{VEXA_BUILD_DIR}/docs)
endif()
set(VEXA_DOCS_DIR ${docsDir} CACHE PATH "Where scripts/docs has written the manual pages")
install(DIRECTORY ${VEXA_DOCS_DIR}/man/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development
    OPTIONAL)

# The prefix is told from where the file lies, so that `cmake --install --prefix` may choose it; not
# if the library's directory was given in full, nor for /usr, whose directories pkg-config leaves out
# only where it sees them by these names.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(pcPrefix ${CMAKE_INSTALL_PREFIX})
else()
    file(RELATIVE_PATH pcPrefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
    string(REGEX REPLACE "/$" "" pcPrefix "\${pcfiledir}/${pcPrefix}")
endif()
foreach(directory INCLUDEDIR LIBDIR)
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_${directory} BASE_DIRECTORY "\${prefix}"
        OUTPUT_VARIABLE pc_${directory})
endforeach()
# A shared library brings libusb and the C++ library along; to a static one the program adds them.
if(NOT BUILD_SHARED_LIBS)
    set(pcStaticLibs " -lstdc++ -pthread -Wl,-z,nodelete\nRequires: libusb-1.0")
endif()
configure_file(packaging/vexa-usb.pc.in packaging/vexa-usb.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/vexa-usb.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(TARGET vexa-usb-python)
    execute_process(COMMAND ${VEXA_PYTHON} -c "import os, sys, sysconfig
print(sys.platlibdir, 'python' + sysconfig.get_python_version(),
      os.path.basename(sysconfig.get_path('platlib')), sep='/', end='')"
        OUTPUT_VARIABLE pythonDir COMMAND_ERROR_IS_FATAL ANY)
    set(VEXA_USB_PYTHON_DIR ${pythonDir} CACHE STRING
        "Where the Python package is installed, below the prefix")
    install(DIRECTORY ${PROJECT_BINARY_DIR}/python/vexa_usb ${PROJECT_BINARY_DIR}/python/vexa_usb.egg-info
        DESTINATION ${VEXA_USB_PYTHON_DIR} COMPONENT python OPTIONAL PATTERN __pycache__ EXCLUDE)
    # In the build tree it finds the library beside it.
    install(CODE "
        file(GLOB native \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${VEXA_USB_PYTHON_DIR}/vexa_usb/_native*.so\")
        if(native)
            file(RPATH_REMOVE FILE \"\${native}\")
        endif()" COMPONENT python)
    install(DIRECTORY examples/python DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT python
        PATTERN __pycache__ EXCLUDE)
endif()

if(VEXA_BUILD_TOOLS)
    install(TARGETS vexa-usb-tool
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
    configure_file(docs/man/vexa-usb.1 packaging/vexa-usb.1 @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/packaging/vexa-usb.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
    # Where the shells look; Debian's zsh looks below /usr for what packages bring elsewhere.
    if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        set(zshFunctions vendor-completions)
    else()
        set(zshFunctions site-functions)
    endif()
    install(FILES tools/completions/vexa-usb.bash RENAME vexa-usb
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
    install(FILES tools/completions/vexa-usb.zsh RENAME _vexa-usb
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${zshFunctions} COMPONENT tool)
    install(FILES tools/completions/vexa-usb.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tool)
endif()
if(VEXA_BUILD_SIM)
    install(TARGETS vexa-usb-sim
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT simulator)
    configure_file(docs/man/vexa-usb-sim.1 packaging/vexa-usb-sim.1 @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/packaging/vexa-usb-sim.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT simulator)
    install(FILES docs/simulator.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT simulator)
endif()
