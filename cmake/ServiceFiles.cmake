# SPDX-License-Identifier: Apache-2.0
# What makes a program a system service: its systemd unit, D-Bus policy and D-Bus activation file, from packaging/.
# Package builds and tests may move the folders.
set(WFOAL_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Where systemd units go, below the prefix")
set(WFOAL_DBUS_DIR ${CMAKE_INSTALL_DATADIR}/dbus-1 CACHE STRING "Where D-Bus policy and activation files go, below the prefix")

# wfoal_service_files(NAME PROGRAM): NAME is the service's bus name, PROGRAM its executable and unit.
function(wfoal_service_files name program)
    set(WFOAL_SERVICE_PROGRAM ${CMAKE_INSTALL_FULL_LIBEXECDIR}/${program})
    set(source ${PROJECT_SOURCE_DIR}/packaging)
    configure_file(${source}/systemd/${program}.service.in ${PROJECT_BINARY_DIR}/packaging/${program}.service @ONLY)
    configure_file(${source}/dbus/${name}.service.in ${PROJECT_BINARY_DIR}/packaging/${name}.service @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/packaging/${program}.service DESTINATION ${WFOAL_SYSTEMD_UNIT_DIR} COMPONENT HostPlatform)
    install(FILES ${PROJECT_BINARY_DIR}/packaging/${name}.service DESTINATION ${WFOAL_DBUS_DIR}/system-services COMPONENT HostPlatform)
    install(FILES ${source}/dbus/${name}.conf DESTINATION ${WFOAL_DBUS_DIR}/system.d COMPONENT HostPlatform)
endfunction()
