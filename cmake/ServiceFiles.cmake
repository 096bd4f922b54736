# SPDX-License-Identifier: Apache-2.0
# What makes a program a system service: its systemd unit, D-Bus policy, D-Bus activation file and manual page, from
# packaging/.
# Package builds and tests may move the folders.
include(Gzip)
set(WFOAL_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Where systemd units go, below the prefix")
set(WFOAL_TMPFILES_DIR lib/tmpfiles.d CACHE STRING "Where tmpfiles.d entries go, below the prefix")
set(WFOAL_DBUS_DIR ${CMAKE_INSTALL_DATADIR}/dbus-1 CACHE STRING "Where D-Bus policy and activation files go, below the prefix")

# wfoal_service_files(NAME PROGRAM): NAME is the service's bus name, PROGRAM its executable and unit.
function(wfoal_service_files name program)
    set(source ${PROJECT_SOURCE_DIR}/packaging)
    set(naming Services WFOAL_SERVICE_PROGRAM ${CMAKE_INSTALL_LIBEXECDIR} ${program})
    wfoal_install_naming(${source}/systemd/${program}.service.in ${WFOAL_SYSTEMD_UNIT_DIR} ${program}.service ${naming})
    wfoal_install_naming(${source}/dbus/${name}.service.in ${WFOAL_DBUS_DIR}/system-services ${name}.service ${naming})
    install(FILES ${source}/dbus/${name}.conf DESTINATION ${WFOAL_DBUS_DIR}/system.d COMPONENT Services)
    wfoal_gzip(${source}/man/${program}.8 manual)
    install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT Services)
endfunction()
