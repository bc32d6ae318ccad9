# cmake -DSOURCE_DIR=... -DWORK_DIR=... -DLIBDIR=lib/...
#       (-DBUILD_DIR=... | -DPREFIX=...) -P install_example.cmake
#
# With BUILD_DIR: `cmake --install` of that build into WORK_DIR/prefix, and
# every file installed must lie in the package's own places (nothing with a
# generic name at the top of include/ or of the library folder).
# With PREFIX: the package is installed there already (the Debian packages,
# PREFIX=/usr): the client builds find it where the tools look by default.
#
# Then: pkg-config names -lprsr alone for a shared link and no folder of
# ours on the include path; the installed tools run, with their manual
# pages and bash completions; hvsctl imports the sample cluster and prsrctl
# lists it; examples/client is built with find_package(prsr) (shared and
# static) and with its Makefile, as their comments say, and a program of
# the utility layer with libprsrutil.pc; each build runs on the sample
# cluster.
foreach(v SOURCE_DIR WORK_DIR LIBDIR)
  if(NOT DEFINED ${v})
    message(FATAL_ERROR "${v} is not set")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out
    ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
unset(ENV{PKG_CONFIG_PATH})
if(DEFINED BUILD_DIR)
  set(prefix ${WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
  # The library folder is lib, lib64 or lib/<multiarch>.
  set(lib "^lib(64)?(/[^/]+)?/")
  file(GLOB_RECURSE misplaced RELATIVE ${prefix} ${prefix}/*)
  foreach(place "^bin/(prsrctl|hvsctl)$" "^include/prsr/" "^share/prsr/"
      "^share/man/man1/(prsrctl|hvsctl)\\.1$"
      "^share/bash-completion/completions/(prsrctl|hvsctl)$"
      "${lib}libprsr(util)?\\.(a|so.*)$" "${lib}(prsr|cmake/prsr)/"
      "${lib}pkgconfig/libprsr(util)?\\.pc$")
    list(FILTER misplaced EXCLUDE REGEX "${place}")
  endforeach()
  if(misplaced)
    message(FATAL_ERROR "installed outside the package's places: ${misplaced}")
  endif()
  foreach(f include/prsr/prsr.h include/prsr/hvsapi.h include/prsr/util/keypath.h
            bin/hvsctl bin/prsrctl ${LIBDIR}/libprsr.so.1 ${LIBDIR}/prsr/libhvsapi.so.1
            ${LIBDIR}/pkgconfig/libprsr.pc)
    if(NOT EXISTS ${prefix}/${f})
      message(FATAL_ERROR "not installed: ${f}")
    endif()
  endforeach()
  set(pc_dir ${prefix}/${LIBDIR}/pkgconfig)
  set(find_args -DCMAKE_PREFIX_PATH=${prefix})
  set(make_args PKG_CONFIG_PATH=${pc_dir})
elseif(DEFINED PREFIX)
  set(prefix ${PREFIX})
  set(pc_dir "")
  set(find_args "")
  set(make_args "")
else()
  message(FATAL_ERROR "give BUILD_DIR or PREFIX")
endif()

# pkg-config: a shared link names libprsr alone, a static one the platform
# libraries too.
find_program(MAKE_PROGRAM NAMES make gmake)
find_program(PKG_CONFIG_PROGRAM NAMES pkg-config pkgconf)
if(NOT MAKE_PROGRAM OR NOT PKG_CONFIG_PROGRAM)
  message(FATAL_ERROR "make or pkg-config not found")
endif()
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
run(${PKG_CONFIG_PROGRAM} --libs libprsr)
separate_arguments(libs UNIX_COMMAND "${LAST_OUTPUT}")
list(FILTER libs INCLUDE REGEX "^-l")
if(NOT libs STREQUAL "-lprsr")
  message(FATAL_ERROR "pkg-config --libs libprsr: ${LAST_OUTPUT}")
endif()
run(${PKG_CONFIG_PROGRAM} --static --libs libprsr)
if(NOT LAST_OUTPUT MATCHES "-lprsr .*-lhvsapi")
  message(FATAL_ERROR "pkg-config --static --libs libprsr: ${LAST_OUTPUT}")
endif()
run(${PKG_CONFIG_PROGRAM} --cflags libprsr)
if(LAST_OUTPUT MATCHES "include/prsr")
  message(FATAL_ERROR "pkg-config --cflags libprsr shows the platform headers: ${LAST_OUTPUT}")
endif()

# The tools run from their installed place, with their manual pages (every
# command of --help in them) and their bash completions.
set(ENV{HVS_REGISTRY} "sqlite:${WORK_DIR}/registry.db")
set(ENV{LKS_TIMEOUT_MS} 5000)
foreach(tool prsrctl hvsctl)
  run(${prefix}/bin/${tool} --version)
  if(NOT LAST_OUTPUT MATCHES "^${tool} [0-9]")
    message(FATAL_ERROR "${tool} --version: ${LAST_OUTPUT}")
  endif()
  run(${prefix}/bin/${tool} --help)
  string(REGEX MATCHALL "\n  [a-z][a-z-]* " commands "${LAST_OUTPUT}")
  file(READ ${prefix}/share/man/man1/${tool}.1 man)
  foreach(c ${commands})
    string(STRIP "${c}" c)
    string(REPLACE "-" "\\\\-" c "${c}")
    if(NOT man MATCHES "\n\\.SS \"${tool} ${c}")
      message(FATAL_ERROR "${tool}.1 lacks the command ${c}")
    endif()
  endforeach()
endforeach()
set(completions ${prefix}/share/bash-completion/completions)
# (No ';' in the script: CMake would split the argument there.)
run(bash -c "source ${completions}/hvsctl && source ${completions}/prsrctl || exit 1
  COMP_WORDS=(hvsctl --registry x im) COMP_CWORD=3
  _hvsctl && echo \"\${COMPREPLY[*]}\"
  COMP_WORDS=(prsrctl config database --) COMP_CWORD=3
  _prsrctl && echo \"\${COMPREPLY[*]}\"")
if(NOT LAST_OUTPUT MATCHES "^import\n--db( [a-z-]+)* --json( [a-z-]+)* --registry( [a-z-]+)*\n$")
  message(FATAL_ERROR "bash completions: ${LAST_OUTPUT}")
endif()
run(${prefix}/bin/hvsctl import ${SOURCE_DIR}/examples/sample-cluster.json)
run(${prefix}/bin/prsrctl config database)
if(NOT LAST_OUTPUT MATCHES "SalesDR")
  message(FATAL_ERROR "prsrctl config database: ${LAST_OUTPUT}")
endif()

# Every build must list the three databases and tell hr from salesdr.
function(check_client exe)
  run(${exe})
  if(NOT LAST_OUTPUT MATCHES "3 databases" OR
     NOT LAST_OUTPUT MATCHES "HR +enabled" OR
     NOT LAST_OUTPUT MATCHES "SalesDR +disabled")
    message(FATAL_ERROR "${exe}: unexpected listing:\n${LAST_OUTPUT}")
  endif()
  run(${exe} SALES)
  if(NOT LAST_OUTPUT MATCHES "SALES +enabled")
    message(FATAL_ERROR "${exe} SALES: unexpected output:\n${LAST_OUTPUT}")
  endif()
  execute_process(COMMAND ${exe} nosuch RESULT_VARIABLE rc OUTPUT_QUIET
    ERROR_QUIET)
  if(rc EQUAL 0)
    message(FATAL_ERROR "${exe} nosuch: succeeded")
  endif()
endfunction()

foreach(kind shared static)
  if(kind STREQUAL "static")
    set(opt -DPRSR_EXAMPLE_STATIC=ON)
  else()
    set(opt -DPRSR_EXAMPLE_STATIC=OFF)
  endif()
  set(bdir ${WORK_DIR}/cmake-${kind})
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/client -B ${bdir} ${find_args} ${opt})
  run(${CMAKE_COMMAND} --build ${bdir})
  check_client(${bdir}/prsr-example)
endforeach()

# The Makefile as its comment says: PKG_CONFIG_PATH on make's command line.
unset(ENV{PKG_CONFIG_PATH})
set(mdir ${WORK_DIR}/make)
file(COPY ${SOURCE_DIR}/examples/client/main.c
          ${SOURCE_DIR}/examples/client/Makefile DESTINATION ${mdir})
run(${MAKE_PROGRAM} -C ${mdir} ${make_args})
check_client(${mdir}/prsr-example)

# The utility layer: its headers (which include the platform headers) and
# a C link through libprsrutil.pc.
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
run(${PKG_CONFIG_PROGRAM} --cflags --libs libprsrutil)
separate_arguments(util_flags UNIX_COMMAND "${LAST_OUTPUT}")
file(WRITE ${WORK_DIR}/util.c [[
#include <prsr/util/errtab.h>
#include <prsr/util/keypath.h>
#include <prsr/util/version.h>
int main(void) {
  return u_version_compatible("2.1", "2.0") == U_VERSION_COMPATIBLE &&
         u_version_compatible("2.0", "2.1") == U_VERSION_INCOMPATIBLE ? 0 : 1;
}
]])
run(cc -std=c11 -Wall -Werror -o ${WORK_DIR}/util ${WORK_DIR}/util.c ${util_flags})
run(${WORK_DIR}/util)
message(STATUS "installed package and example client: ok")
