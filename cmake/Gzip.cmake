# SPDX-License-Identifier: Apache-2.0
find_program(GZIP gzip REQUIRED)

# wfoal_gzip(FILE VARIABLE): has the build compress FILE, without name and time of its own, and stores the path of the
# result in VARIABLE.
function(wfoal_gzip file variable)
    get_filename_component(name ${file} NAME)
    set(result ${PROJECT_BINARY_DIR}/packaging/${name}.gz)
    add_custom_command(OUTPUT ${result} DEPENDS ${file} VERBATIM
        COMMAND ${GZIP} -9nc ${file} > ${result})
    add_custom_target(gzip-${name} ALL DEPENDS ${result})
    set(${variable} ${result} PARENT_SCOPE)
endfunction()
