# SPDX-License-Identifier: Apache-2.0
# cpack runs this when the packages are made. It gives every library package scripts that call ldconfig, for which
# Debian has a trigger instead: they are taken out again, and the package is put together by Debian's own tool.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    set(folder ${package}.unpacked)
    execute_process(COMMAND dpkg-deb --raw-extract ${package} ${folder} COMMAND_ERROR_IS_FATAL ANY)
    foreach(script postinst postrm)
        if(EXISTS ${folder}/DEBIAN/triggers)
            file(REMOVE ${folder}/DEBIAN/${script})
        endif()
    endforeach()
    execute_process(COMMAND dpkg-deb --root-owner-group --build ${folder} ${package} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${folder})
endforeach()
