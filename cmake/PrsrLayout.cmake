# Where an installed package puts its files, and how each shared library
# says what it exports. Included before any target is defined.
#
#   ${libdir}/libprsr.so.1, libprsr.a, libprsrutil.a   what clients link
#   ${libdir}/prsr/                                    the platform libraries
#   ${includedir}/prsr/                                every installed header
#   ${datadir}/prsr/hvs.msg                            the message catalogue
#
# Nothing with a generic name lands directly in a system prefix: the
# platform libraries (libmp, libthr, libmsg...) and their headers (mp.h,
# thr.h, msg.h...) live in folders of their own.
#
# Install components, one Debian package each (cmake/PrsrPackage.cmake):
#   runtime  shared libraries and the message catalogue
#   dev      headers, static libraries, linker names, pkg-config, CMake
#   tools    prsrctl, hvsctl
include_guard(GLOBAL)

set(PRSR_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/prsr)
set(PRSR_INSTALL_PRIVATE_LIBDIR ${CMAKE_INSTALL_LIBDIR}/prsr)
set(PRSR_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/prsr)

option(PRSR_INSTALL_RPATH
  "Give installed programs and libraries an \$ORIGIN-relative run path" ON)

# _prsr_full(out dir): dir made absolute under the install prefix.
function(_prsr_full out dir)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "${CMAKE_INSTALL_PREFIX}/${dir}" PARENT_SCOPE)
  endif()
endfunction()

# prsr_origin_path(out from to...): the run path, relative to $ORIGIN, that
# leads from the installed folder `from` to each folder `to`.
function(prsr_origin_path out from)
  _prsr_full(_from "${from}")
  set(_paths "")
  foreach(_to ${ARGN})
    _prsr_full(_abs "${_to}")
    file(RELATIVE_PATH _rel "${_from}" "${_abs}")
    if(_rel STREQUAL "")
      list(APPEND _paths "$ORIGIN")
    else()
      list(APPEND _paths "$ORIGIN/${_rel}")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES _paths)
  set(${out} "${_paths}" PARENT_SCOPE)
endfunction()

# prsr_install_rpath(target from to...): sets the installed run path of
# target (installed in `from`) unless PRSR_INSTALL_RPATH is off.
function(prsr_install_rpath target from)
  if(PRSR_INSTALL_RPATH)
    prsr_origin_path(_rpath "${from}" ${ARGN})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${_rpath}")
  endif()
endfunction()

# prsr_export_map(target map): links a shared library with its export list,
# a version script whose global names are all it may export, and records
# the pair for the export check of tests/abi.
function(prsr_export_map target map)
  target_link_options(${target} PRIVATE -Wl,--version-script=${map})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
  set_property(GLOBAL APPEND PROPERTY PRSR_EXPORT_MAPS "$<TARGET_FILE:${target}>=${map}")
endfunction()

# prsr_platform_library(target): the common part of every platform
# library: its export list (<folder>/<target>.map), its install rule into
# the private library folder (the versioned file for the runtime, the
# linker name for development) and its run path, its headers (include/*.h
# of the folder) under the project's include folder, and its place in the
# CMake package as prsr::<target>.
function(prsr_platform_library target)
  prsr_export_map(${target} ${CMAKE_CURRENT_SOURCE_DIR}/${target}.map)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${PRSR_INSTALL_INCLUDEDIR}>)
  install(TARGETS ${target} EXPORT prsrTargets
    LIBRARY DESTINATION ${PRSR_INSTALL_PRIVATE_LIBDIR}
      COMPONENT runtime NAMELINK_COMPONENT dev)
  prsr_install_rpath(${target} ${PRSR_INSTALL_PRIVATE_LIBDIR} ${PRSR_INSTALL_PRIVATE_LIBDIR})
  file(GLOB _headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/include/*.h)
  install(FILES ${_headers} DESTINATION ${PRSR_INSTALL_INCLUDEDIR} COMPONENT dev)
endfunction()
