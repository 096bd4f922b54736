# SPDX-License-Identifier: Apache-2.0
# What an installation holds: the plug-in, the agent API, and how an agent's build finds both.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/agent/kest DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development)
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/wfoal-platform COMPONENT Development)

set(WFOAL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VpnWfOal)
configure_package_config_file(cmake/VpnWfOalConfig.cmake.in VpnWfOalConfig.cmake
    INSTALL_DESTINATION ${WFOAL_PACKAGE_DIR} PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(VpnWfOalConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VpnWfOalConfig.cmake ${PROJECT_BINARY_DIR}/VpnWfOalConfigVersion.cmake
    DESTINATION ${WFOAL_PACKAGE_DIR} COMPONENT Development)

# Relative to the file itself, so that it is right wherever "cmake --install --prefix" puts it.
file(RELATIVE_PATH WFOAL_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
foreach(folder LIBDIR INCLUDEDIR)
    set(WFOAL_PC_${folder} "${CMAKE_INSTALL_${folder}}")
    if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_${folder}}")
        set(WFOAL_PC_${folder} "\${prefix}/${CMAKE_INSTALL_${folder}}")
    endif()
endforeach()
configure_file(cmake/libVpnWfOal.pc.in libVpnWfOal.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libVpnWfOal.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
