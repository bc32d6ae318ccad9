# cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -P install_example.cmake
#
# 1. cmake --install into WORK_DIR/prefix;
# 2. imports the sample cluster with the installed hvsctl;
# 3. builds examples/client with find_package(prsr), shared and static, and
#    with its Makefile through pkg-config;
# 4. runs each build: listing databases, and asking for one by name.
foreach(v BUILD_DIR SOURCE_DIR WORK_DIR)
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
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(f include/prsr.h include/hvsapi.h include/lks.h bin/hvsctl bin/prsrctl)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

set(ENV{HVS_REGISTRY} "sqlite:${WORK_DIR}/registry.db")
set(ENV{LKS_TIMEOUT_MS} 5000)
run(${prefix}/bin/hvsctl import ${SOURCE_DIR}/examples/sample-cluster.json)

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
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/client -B ${bdir}
    -DCMAKE_PREFIX_PATH=${prefix} ${opt})
  run(${CMAKE_COMMAND} --build ${bdir})
  check_client(${bdir}/prsr-example)
endforeach()

find_program(MAKE_PROGRAM NAMES make gmake)
find_program(PKG_CONFIG_PROGRAM NAMES pkg-config pkgconf)
if(MAKE_PROGRAM AND PKG_CONFIG_PROGRAM)
  set(mdir ${WORK_DIR}/make)
  file(MAKE_DIRECTORY ${mdir})
  file(COPY ${SOURCE_DIR}/examples/client/main.c
            ${SOURCE_DIR}/examples/client/Makefile DESTINATION ${mdir})
  file(GLOB_RECURSE pc_file ${prefix}/libprsr.pc)
  get_filename_component(pc_dir "${pc_file}" DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
  run(${MAKE_PROGRAM} -C ${mdir})
  check_client(${mdir}/prsr-example)
else()
  message(FATAL_ERROR "make or pkg-config not found")
endif()
message(STATUS "installed package and example client: ok")
