# SPDX-License-Identifier: Apache-2.0
# Compiler settings that every target shares.
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow $<$<COMPILE_LANGUAGE:CXX>:-Wconversion> -fstack-protector-strong)
add_compile_definitions(_FILE_OFFSET_BITS=64)
if(WFOAL_WERROR)
    add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Unique symbols would keep the library in memory after dlclose().
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()
add_link_options(-Wl,-z,defs,-z,now,-z,relro)
if(NOT WFOAL_COVERAGE)
    # __FILE__ and debug information name files relative to this folder, so that no file shows where it was built.
    # Coverage reports look for the sources under the full names.
    add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
endif()

if(WFOAL_SANITIZE)
    add_compile_options(-fsanitize=${WFOAL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${WFOAL_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        # clang leaves the sanitizer's symbols to the executable, which -z defs would refuse.
        add_link_options(-Wl,-z,undefs)
    endif()
elseif(CMAKE_BUILD_TYPE MATCHES "^Rel")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
if(WFOAL_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
    include(Counters)
endif()

# The libraries are loaded into every agent, so they are built to be small: the linker sees all of a library's code at
# once. A program that the same objects are linked into gets what each compiled to by itself.
set(WFOAL_SMALL OFF)
if(CMAKE_BUILD_TYPE MATCHES "^Rel" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT WFOAL_SANITIZE AND NOT WFOAL_COVERAGE)
    set(WFOAL_SMALL ON)
    add_link_options(-fno-lto)  # but for those below: it takes long
endif()

# For the targets of the calling folder and below.
macro(wfoal_small_objects)
    if(WFOAL_SMALL)
        # The assembler writes the folder into the line table of such an object by itself.
        add_compile_options(-Os -flto -ffat-lto-objects -ffunction-sections -fdata-sections -Wa,--debug-prefix-map=${PROJECT_SOURCE_DIR}/=)
    endif()
endmacro()

# What is called for each element of long lists is worth its bytes. The rarely executed part of a function stays in it:
# elsewhere it would need a frame description and jumps of its own.
function(wfoal_fast_sources)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "$<$<BOOL:${WFOAL_SMALL}>:-O2;-fno-reorder-blocks-and-partition>")
endfunction()

# The linker generates the code, so it gets the options of the compiler that matter for it.
function(wfoal_small_link target)
    if(WFOAL_SMALL)
        target_link_options(${target} PRIVATE -flto -flto-partition=one -fno-gnu-unique -fstack-protector-strong -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -Wl,--gc-sections)
    endif()
endfunction()

# Versioned shared library of this project, with only the names of its version script exported.
function(wfoal_shared_library target)
    set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    wfoal_small_link(${target})
    set(script ${CMAKE_CURRENT_SOURCE_DIR}/${target}.map)
    target_link_options(${target} PRIVATE -Wl,--version-script=${script})
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${script})
endfunction()
