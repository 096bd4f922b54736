# SPDX-License-Identifier: Apache-2.0
# Debian packages, made by cpack from a finished build: packaging/make-packages.sh does it in one command. Each package
# is one component of the installation.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(NOT PROJECT_IS_TOP_LEVEL OR NOT WFOAL_PLATFORM STREQUAL "host" OR NOT DPKG_SHLIBDEPS)
    return()
endif()
include(Gzip)
set(WFOAL_DEBIAN ${PROJECT_SOURCE_DIR}/packaging/debian)

file(STRINGS ${WFOAL_DEBIAN}/changelog latest LIMIT_COUNT 1)
if(NOT latest MATCHES "^vpnwfoal \\((${PROJECT_VERSION}-([0-9]+))\\)")
    message(FATAL_ERROR "packaging/debian/changelog begins with '${latest}', the project's version is ${PROJECT_VERSION}")
endif()
set(version ${CMAKE_MATCH_1})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
wfoal_gzip(${WFOAL_DEBIAN}/changelog debian_changelog)
wfoal_gzip(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog)

# wfoal_package(COMPONENT NAME SECTION [VARIABLE VALUE]...): more of the package, as CPACK_DEBIAN_<COMPONENT>_<VARIABLE>.
# No value may hold a semicolon. The package's maintainer scripts and symbols are those of packaging/debian/NAME/, its lintian
# overrides those of every package and its own. The files of its documentation folder come with the package only, not
# with other installations.
set(components)
function(wfoal_package component name section)
    string(TOUPPER ${component} upper)
    set(values PACKAGE_NAME ${name} PACKAGE_SECTION ${section} ${ARGN})
    while(values)
        list(POP_FRONT values variable value)
        set(CPACK_DEBIAN_${upper}_${variable} "${value}" PARENT_SCOPE)
    endwhile()
    set(components ${components} ${component} PARENT_SCOPE)
    file(GLOB control_files ${WFOAL_DEBIAN}/${name}/p* ${WFOAL_DEBIAN}/${name}/symbols)
    if(section STREQUAL "libs")
        list(APPEND control_files ${WFOAL_DEBIAN}/triggers)
    endif()
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA "${control_files}" PARENT_SCOPE)

    set(folder ${CMAKE_INSTALL_DATADIR}/doc/${name})
    install(FILES ${WFOAL_DEBIAN}/copyright DESTINATION ${folder} COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES ${debian_changelog} DESTINATION ${folder} RENAME changelog.Debian.gz COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES ${changelog} DESTINATION ${folder} RENAME changelog.gz COMPONENT ${component} EXCLUDE_FROM_ALL)
    set(overrides "")
    foreach(file ${WFOAL_DEBIAN}/lintian-overrides ${WFOAL_DEBIAN}/${name}/lintian-overrides)
        if(EXISTS ${file})
            file(READ ${file} text)
            string(APPEND overrides "${text}")
        endif()
    endforeach()
    file(CONFIGURE OUTPUT packaging/lintian-overrides/${name} CONTENT "${overrides}" @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/packaging/lintian-overrides/${name}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

# A device's own platform package may take the place of the host platform: it provides vpnwfoal-platform.
wfoal_package(Plugin libvpnwfoal0 libs
    PACKAGE_DEPENDS "libvpnwfoal-platform0 (>= ${PROJECT_VERSION}) | vpnwfoal-platform, iproute2"
    PACKAGE_RECOMMENDS "vpnwfoal-services"
    PACKAGE_MULTIARCH same
    DESCRIPTION "platform plug-in for VPN agents
A VPN agent loads this library and leaves to it what differs between devices:
the tunnel's addresses, DNS, routes and packet filter, the choice of the
physical interface, certificates and files, and news of the network and of
the device's sleep.
.
This package holds the plug-in alone. It works on the libraries of
libvpnwfoal-platform0, or on those of a device.")
wfoal_package(Development libvpnwfoal-dev libdevel
    PACKAGE_DEPENDS "libvpnwfoal0 (= ${version}), libvpnwfoal-platform0 (= ${version})"
    DESCRIPTION "platform plug-in for VPN agents (development files)
What the build of a VPN agent needs: the headers of the agent's interface, a
CMake package and a pkg-config file. An agent that loads the plug-in while it
runs links nothing.
.
The headers of the four interfaces that the plug-in needs of a platform are
here too, for whoever ports it to a device, and vpnoalconform, which tries
what a platform's libraries promise.")
wfoal_package(HostPlatform libvpnwfoal-platform0 libs
    PACKAGE_PROVIDES vpnwfoal-platform
    PACKAGE_RECOMMENDS "default-dbus-system-bus | dbus-system-bus"
    # Not recommended: installing either takes /etc/resolv.conf over.
    PACKAGE_SUGGESTS "systemd-resolved | resolvconf"
    PACKAGE_MULTIARCH same
    DESCRIPTION "platform libraries of the VPN plug-in for an ordinary Linux
The four libraries that the plug-in calls on a device, made for an ordinary
Linux: the service bus on D-Bus, sleep and wake-up from logind, the log in the
journal or syslog, and network configuration through rtnetlink, nftables and
systemd-resolved or resolvconf.")
wfoal_package(Services vpnwfoal-services net
    PACKAGE_DEPENDS "default-dbus-system-bus | dbus-system-bus, libvpnwfoal-platform0 (>= ${PROJECT_VERSION})"
    PACKAGE_MULTIARCH foreign
    DESCRIPTION "connection manager and certificate manager for the VPN plug-in
Two services on the system bus that the VPN plug-in works with. The connection
manager tells the status of Wi-Fi and mobile network and every change of it.
The certificate manager installs the client certificates that root imports.
.
Both are started by systemd, or by the bus when somebody calls them.")
wfoal_package(Tools vpnoalctl net
    PACKAGE_DEPENDS "libvpnwfoal0 (>= ${PROJECT_VERSION}), libvpnwfoal-platform0 (>= ${PROJECT_VERSION})"
    PACKAGE_RECOMMENDS "vpnwfoal-services"
    PACKAGE_SUGGESTS "wireguard-tools, wireguard-go"
    PACKAGE_MULTIARCH foreign
    DESCRIPTION "drive the VPN plug-in from the shell
A command-line tool that loads the VPN plug-in as an agent does and makes it
do what the command names: bring up a tunnel from a profile, list interfaces,
routes and certificates, watch the device's network, and tell what is missing.")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vpnwfoal)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_PACKAGE_CONTACT "libVpnWfOal maintainers <maintainers@vpnwfoal.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
# What is stripped goes to packages of its own. Files must not be stripped before.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/FinishPackages.cmake)
include(CPack)
