# SPDX-License-Identifier: Apache-2.0
# Coverage counters of processes that end without exit handlers: tests/coverage/counters.c says how. Everything that is
# linked gets it, so it is there before anything is built, and has no counters itself.
set(source ${PROJECT_SOURCE_DIR}/tests/coverage)
set(folder ${PROJECT_BINARY_DIR}/counters)
file(MAKE_DIRECTORY ${folder})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source}/counters.c ${source}/object.c)
execute_process(COMMAND_ERROR_IS_FATAL ANY
    COMMAND ${CMAKE_C_COMPILER} -std=gnu11 -O2 -Wall -Wextra -Werror -fPIC -shared -Wl,-soname,libcounters.so
        -o ${folder}/libcounters.so ${source}/counters.c)
execute_process(COMMAND_ERROR_IS_FATAL ANY
    COMMAND ${CMAKE_C_COMPILER} -std=gnu11 -O2 -Wall -Wextra -Werror -fPIC -c -o ${folder}/object.o ${source}/object.c)
add_link_options(${folder}/object.o -Wl,--push-state,--no-as-needed ${folder}/libcounters.so -Wl,--pop-state -Wl,-rpath,${folder})
