# cmake -DLIBS="lib=map|lib=map..." -DLIB_DIRS="dir|dir..." -DSTATIC=libprsr.a
#       -DSTATIC_LIST=list -P check_exports.cmake
#
# Every shared library found under LIB_DIRS has an export list in LIBS, and
# defines exactly its global names (a version script): nothing internal
# gets out, nothing listed is missing.
# The static library's objects define exactly the names of STATIC_LIST as
# globals: everything else of ours in it is local.
cmake_minimum_required(VERSION 3.25)

# _defined(out file [dynamic]): the global names file defines.
function(_defined out file)
  if(ARGN)
    set(opts -D --defined-only)
  else()
    set(opts -g --defined-only)
  endif()
  execute_process(COMMAND nm ${opts} ${file} OUTPUT_VARIABLE nm_out
    RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${file}: ${err}")
  endif()
  string(REGEX MATCHALL "[ \n][TDBRVWiu] [A-Za-z_][A-Za-z0-9_@.]*" entries "${nm_out}")
  set(names "")
  foreach(e ${entries})
    string(REGEX REPLACE "^.. ([^@]*).*" "\\1" name "${e}")
    list(APPEND names ${name})
  endforeach()
  list(REMOVE_DUPLICATES names)
  set(${out} ${names} PARENT_SCOPE)
endfunction()

# _compare(what defined wanted): fails with the names that differ.
function(_compare what defined wanted)
  set(extra ${defined})
  set(missing ${wanted})
  if(wanted)
    list(REMOVE_ITEM extra ${wanted})
  endif()
  if(defined)
    list(REMOVE_ITEM missing ${defined})
  endif()
  if(extra OR missing)
    list(JOIN extra " " extra)
    list(JOIN missing " " missing)
    message(SEND_ERROR "${what}:\n  exported but not listed: ${extra}\n  listed but not exported: ${missing}")
  else()
    list(LENGTH wanted n)
    message(STATUS "${what}: exports the ${n} listed names")
  endif()
endfunction()

string(REPLACE "|" ";" pairs "${LIBS}")
set(listed "")
foreach(pair ${pairs})
  string(REGEX MATCH "^([^=]+)=(.+)$" _ "${pair}")
  set(lib ${CMAKE_MATCH_1})
  file(REAL_PATH ${lib} real)
  list(APPEND listed ${real})
  file(READ ${CMAKE_MATCH_2} map)
  # The global names of a version script: comments out, then what stands
  # between "global:" and "local:", one name per ';'.
  string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" map "${map}")
  string(REGEX MATCH "global:([^:]*)local:" _ "${map}")
  string(REGEX REPLACE "[ \t\r\n]" "" wanted "${CMAKE_MATCH_1}")
  list(FILTER wanted EXCLUDE REGEX "^$")
  _defined(defined ${lib} dynamic)
  list(REMOVE_ITEM defined PRSR_1)
  get_filename_component(name ${lib} NAME)
  _compare(${name} "${defined}" "${wanted}")
endforeach()

string(REPLACE "|" ";" dirs "${LIB_DIRS}")
foreach(dir ${dirs})
  file(GLOB_RECURSE found ${dir}/lib*.so ${dir}/lib*.so.*)
  foreach(f ${found})
    file(REAL_PATH ${f} real)
    if(NOT real IN_LIST listed)
      message(SEND_ERROR "${f}: a shared library without an export list (prsr_export_map)")
    endif()
  endforeach()
endforeach()

if(STATIC)
  file(STRINGS ${STATIC_LIST} wanted)
  _defined(defined ${STATIC})
  get_filename_component(name ${STATIC} NAME)
  _compare(${name} "${defined}" "${wanted}")
endif()
