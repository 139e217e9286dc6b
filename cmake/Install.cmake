# Installation: both libraries, the static test transport, the public headers
# under include/AvQvlCppBinding/ (same sub-paths as in the source tree), the
# quorvel tool with its man page and bash completion, quorveld's man page and bash completion, a
# CMake package and a pkg-config file.
#
#   find_package(AvQvlCppBinding CONFIG REQUIRED)
#   target_link_libraries(app PRIVATE AvQvlCppBinding::AvQvlCppBinding)
#   target_link_libraries(app_test PRIVATE AvQvlCppBinding::TestTransport)
#
#   c++ app.cpp $(pkg-config --cflags --libs AvQvlCppBinding)
include(CMakePackageConfigHelpers)

set(AVQVL_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/AvQvlCppBinding)
set(AVQVL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/AvQvlCppBinding)
set(AVQVL_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The client library finds the transport library beside itself wherever the
# prefix is; an application then needs only its own path to libAvQvlCppBinding.
set_target_properties(AvQvlCppBinding AvQvlBindingv12064 PROPERTIES INSTALL_RPATH "$ORIGIN")

set(avqvl_exported_targets AvQvlCppBinding AvQvlBindingv12064)
if(TARGET AvQvlTestTransport)
    # Applications spell it AvQvlCppBinding::TestTransport. Its interface keeps
    # the linker option that pulls its AvQvl_ functions into the executable,
    # where they take precedence over the transport library's.
    set_target_properties(AvQvlTestTransport PROPERTIES EXPORT_NAME TestTransport)
    list(APPEND avqvl_exported_targets AvQvlTestTransport)
endif()

install(TARGETS ${avqvl_exported_targets}
    EXPORT AvQvlCppBindingTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

if(TARGET quorvel)
    install(TARGETS quorvel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES ${PROJECT_SOURCE_DIR}/share/man/man1/quorvel.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES ${PROJECT_SOURCE_DIR}/share/bash-completion/completions/quorvel
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
endif()
if(TARGET quorveld)
    install(FILES ${PROJECT_SOURCE_DIR}/share/man/man8/quorveld.8
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
    install(FILES ${PROJECT_SOURCE_DIR}/share/bash-completion/completions/quorveld
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
endif()

foreach(dir client util schemas)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/${dir}/
        DESTINATION ${AVQVL_INSTALL_INCLUDEDIR}/${dir}
        FILES_MATCHING PATTERN "*.h"
        PATTERN "internal" EXCLUDE)  # each room's private headers
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/transport/AvQvlBinding.h
    DESTINATION ${AVQVL_INSTALL_INCLUDEDIR}/transport)
# The protocol's header-only constants that the public headers and the client
# library's sources include (protocol/CMakeLists.txt says which).
install(FILES
    ${PROJECT_SOURCE_DIR}/protocol/ResultCodes.h
    ${PROJECT_SOURCE_DIR}/protocol/Names.h
    ${PROJECT_SOURCE_DIR}/protocol/XmlEscape.h
    DESTINATION ${AVQVL_INSTALL_INCLUDEDIR}/protocol)
if(EXISTS ${PROJECT_SOURCE_DIR}/transport/testing/TestTransport.h)
    install(FILES ${PROJECT_SOURCE_DIR}/transport/testing/TestTransport.h
        DESTINATION ${AVQVL_INSTALL_INCLUDEDIR}/transport/testing)
endif()

install(EXPORT AvQvlCppBindingTargets
    NAMESPACE AvQvlCppBinding::
    DESTINATION ${AVQVL_INSTALL_CMAKEDIR})
configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/AvQvlCppBindingConfig.cmake.in
    ${PROJECT_BINARY_DIR}/AvQvlCppBindingConfig.cmake
    INSTALL_DESTINATION ${AVQVL_INSTALL_CMAKEDIR})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/AvQvlCppBindingConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/AvQvlCppBindingConfig.cmake
    ${PROJECT_BINARY_DIR}/AvQvlCppBindingConfigVersion.cmake
    DESTINATION ${AVQVL_INSTALL_CMAKEDIR})

# The .pc file finds its prefix from its own location, so it stays right for
# `cmake --install --prefix` and for a moved installation.
if(IS_ABSOLUTE "${AVQVL_INSTALL_PKGCONFIGDIR}")
    set(AVQVL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
    file(RELATIVE_PATH avqvl_up "/p/${AVQVL_INSTALL_PKGCONFIGDIR}" "/p")
    string(REGEX REPLACE "/$" "" avqvl_up "${avqvl_up}")
    set(AVQVL_PC_PREFIX "\${pcfiledir}/${avqvl_up}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/AvQvlCppBinding.pc.in
    ${PROJECT_BINARY_DIR}/AvQvlCppBinding.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/AvQvlCppBinding.pc DESTINATION ${AVQVL_INSTALL_PKGCONFIGDIR})
