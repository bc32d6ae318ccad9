# What `cmake --install` puts in place beyond each target's own rule (see
# cmake/PrsrLayout.cmake for the layout): the tools' run path, the pkg-config
# files (libprsr.pc, libprsrutil.pc) and the CMake package (prsrConfig.cmake
# with prsr::prsr, prsr::prsr_static, prsr::prsrutil and the platform
# libraries as prsr::hvsapi, prsr::lks...).
include(CMakePackageConfigHelpers)

# The tools find libprsr in the library folder and the platform libraries in
# its private folder, whatever the library folder is (lib, lib64,
# lib/x86_64-linux-gnu...).
foreach(_tool prsrctl hvsctl)
  prsr_install_rpath(${_tool} ${CMAKE_INSTALL_BINDIR}
    ${CMAKE_INSTALL_LIBDIR} ${PRSR_INSTALL_PRIVATE_LIBDIR})
endforeach()

# Without run paths (-DPRSR_INSTALL_RPATH=OFF, for distributions that forbid
# them) the dynamic loader must know the private folder: the runtime
# component brings a file for ld.so.conf.d naming it (in /etc for the
# prefix /usr; the Debian package runs ldconfig after installing it).
if(NOT PRSR_INSTALL_RPATH)
  _prsr_full(_priv ${PRSR_INSTALL_PRIVATE_LIBDIR})
  set(_conf prsr.conf)
  if(CMAKE_LIBRARY_ARCHITECTURE)
    set(_conf prsr-${CMAKE_LIBRARY_ARCHITECTURE}.conf)
  endif()
  file(WRITE ${PROJECT_BINARY_DIR}/${_conf} "${_priv}\n")
  install(FILES ${PROJECT_BINARY_DIR}/${_conf}
    DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/ld.so.conf.d COMPONENT runtime)
endif()

# CMake package: find_package(prsr) gives the targets of the export set.
set(PRSR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/prsr)
install(EXPORT prsrTargets NAMESPACE prsr:: DESTINATION ${PRSR_CMAKE_DIR}
  COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/prsrConfig.cmake.in
  ${PROJECT_BINARY_DIR}/prsrConfig.cmake INSTALL_DESTINATION ${PRSR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/prsrConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/prsrConfig.cmake
  ${PROJECT_BINARY_DIR}/prsrConfigVersion.cmake DESTINATION ${PRSR_CMAKE_DIR}
  COMPONENT dev)

# pkg-config: `pkg-config --cflags --libs libprsr` (and libprsrutil). The
# prefix is taken from where the file lies, so `cmake --install --prefix P`
# gives a correct file; folders given as absolute paths stay as they are.
set(PRSR_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
_prsr_full(_pc_full ${PRSR_PC_DIR})
file(RELATIVE_PATH PRSR_PC_TO_PREFIX ${_pc_full} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" PRSR_PC_TO_PREFIX "${PRSR_PC_TO_PREFIX}")
foreach(_v LIBDIR:CMAKE_INSTALL_LIBDIR PRIVATE_LIBDIR:PRSR_INSTALL_PRIVATE_LIBDIR
           INCLUDEDIR:CMAKE_INSTALL_INCLUDEDIR PRIVATE_INCLUDEDIR:PRSR_INSTALL_INCLUDEDIR)
  string(REPLACE ":" ";" _pair ${_v})
  list(GET _pair 0 _name)
  list(GET _pair 1 _var)
  if(IS_ABSOLUTE "${${_var}}")
    set(PRSR_PC_${_name} "${${_var}}")
  else()
    set(PRSR_PC_${_name} "\${prefix}/${${_var}}")
  endif()
endforeach()
# A static link finds the platform libraries at run time through a run path
# to their folder, or, without run paths, through the loader's file above.
set(PRSR_PC_RPATH "")
if(PRSR_INSTALL_RPATH)
  set(PRSR_PC_RPATH " -Wl,-rpath,\${privlibdir}")
endif()
# -l options of the platform libraries a static link of each library needs.
list(TRANSFORM PRSR_PLATFORM_LIBS PREPEND -l OUTPUT_VARIABLE _l)
list(JOIN _l " " PRSR_PC_PLATFORM_LIBS)
list(TRANSFORM PRSRUTIL_PLATFORM_LIBS PREPEND -l OUTPUT_VARIABLE _l)
list(JOIN _l " " PRSRUTIL_PC_PLATFORM_LIBS)
foreach(_pc libprsr libprsrutil)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${_pc}.pc.in ${PROJECT_BINARY_DIR}/${_pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${_pc}.pc DESTINATION ${PRSR_PC_DIR} COMPONENT dev)
endforeach()
