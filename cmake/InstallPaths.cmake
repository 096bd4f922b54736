# SPDX-License-Identifier: Apache-2.0
# Where things are installed, and how they find each other there. One build serves every prefix: "cmake --install
# --prefix" into a folder of one's own, and the Debian packages.

# Debian's folder for libraries is right below every prefix there, not only below /usr.
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE AND NOT CMAKE_CROSSCOMPILING)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE STRING "Where libraries go, below the prefix")
endif()
include(GNUInstallDirs)

# Stores the path that a script of the installation has for a FOLDER below the prefix, or for an absolute one.
function(wfoal_installed_path folder variable)
    if(NOT IS_ABSOLUTE "${folder}")
        set(folder "\${CMAKE_INSTALL_PREFIX}/${folder}")
    endif()
    set(${variable} "${folder}" PARENT_SCOPE)
endfunction()

# wfoal_find_installed_libraries(TARGET FOLDER COMPONENT): TARGET, installed into CMAKE_INSTALL_<FOLDER> as part of
# COMPONENT by an install() before, looks for this project's libraries where they are relative to itself. Below /usr the
# loader knows the place, and no path of its own is left in the file. file(RPATH_REMOVE) is what CMake's own installation
# scripts use.
function(wfoal_find_installed_libraries target folder component)
    file(RELATIVE_PATH way ${CMAKE_INSTALL_FULL_${folder}} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "\$ORIGIN/${way}")
    wfoal_installed_path("${CMAKE_INSTALL_${folder}}" installed)
    install(CODE "
        if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
            file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}${installed}/$<TARGET_FILE_NAME:${target}>\")
        endif()" COMPONENT ${component})
endfunction()

# wfoal_install_naming(SOURCE FOLDER NAME COMPONENT [VARIABLE FOLDER FILE]...): installs SOURCE as FOLDER/NAME, with each
# @VARIABLE@ in it replaced by the path of an installed file. Where that is, is known when the prefix is: as it is
# installed.
function(wfoal_install_naming source folder name component)
    install(FILES ${source} DESTINATION ${folder} RENAME ${name} COMPONENT ${component})
    wfoal_installed_path("${folder}" installed)
    set(named ${ARGN})
    set(settings "")
    while(named)
        list(POP_FRONT named variable place file)
        wfoal_installed_path("${place}" path)
        string(APPEND settings "set(${variable} \"${path}/${file}\")\n")
    endwhile()
    install(CODE "
        ${settings}
        set(installed \"\$ENV{DESTDIR}${installed}/${name}\")
        file(READ \"\${installed}\" text)
        string(CONFIGURE \"\${text}\" text @ONLY)
        file(WRITE \"\${installed}\" \"\${text}\")" COMPONENT ${component})
endfunction()
