# Installs the build tree into a scratch prefix, then builds and runs a small
# C host against it twice: through pkg-config and through find_package.
# Arguments: BUILD_DIR, LIBDIR, SRC (tests/install), CC, SANITIZE.
set(work ${BUILD_DIR}/install-test)
set(prefix ${work}/prefix)
file(REMOVE_RECURSE ${work})
file(MAKE_DIRECTORY ${work})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_out "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(f include/Brackvista40Lib1.h ${LIBDIR}/libBrackvista40Lib1.so.1
        ${LIBDIR}/pkgconfig/Brackvista40Lib1.pc ${LIBDIR}/cmake/Brackvista40Lib1/Brackvista40Lib1Config.cmake)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

# A sanitized library needs its runtime in the host too.
set(san_flags "")
if(SANITIZE)
  set(san_flags -fsanitize=${SANITIZE})
endif()
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})

# 1. pkg-config
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run(pkg-config --cflags --libs Brackvista40Lib1)
string(STRIP "${last_out}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run(${CC} -std=c99 -pedantic -Wall -Werror ${san_flags} ${SRC}/consumer.c ${pc_flags}
    -o ${work}/consumer_pkgconfig)
run(${work}/consumer_pkgconfig)
message(STATUS "pkg-config host: ${last_out}")

# 2. find_package
set(cmake_san "")
if(SANITIZE)
  set(cmake_san -DCMAKE_C_FLAGS=-fsanitize=${SANITIZE} -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=${SANITIZE})
endif()
run(${CMAKE_COMMAND} -S ${SRC} -B ${work}/cmake-host -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_C_COMPILER=${CC} ${cmake_san})
run(${CMAKE_COMMAND} --build ${work}/cmake-host)
run(${work}/cmake-host/consumer)
message(STATUS "find_package host: ${last_out}")
