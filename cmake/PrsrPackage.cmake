# Debian packages, one per install component (cmake/PrsrLayout.cmake):
#   libprsr1     runtime: libprsr.so.1, the platform libraries, the catalogue
#   libprsr-dev  dev: headers, libprsr.a, libprsrutil.a, linker names,
#                pkg-config files, CMake package
#   prsr-tools   tools: prsrctl, hvsctl
#
#   cmake -S . -B build -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=Release
#   cmake --build build -j2
#   cd build && cpack -G DEB
#
# The packages install under CMAKE_INSTALL_PREFIX, the prefix the build was
# configured for (paths compiled in, such as the message catalogue's, follow
# it): a distribution build configures /usr, where the library folder is
# the multiarch one (lib/x86_64-linux-gnu).
set(CPACK_PACKAGE_NAME libprsr)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Reads and updates the configuration of clustered databases in the cluster registry")
set(CPACK_PACKAGE_CONTACT "libprsr developers <prsr@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# The loader's file of a build without run paths lies in /etc: staged
# through DESTDIR like everything else.
set(CPACK_SET_DESTDIR ON)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime dev tools)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(_prsr_deb_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libprsr1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "cluster database configuration library\n libprsr.so.1 and the platform libraries it stands on (registry client,\n lock service, trace, memory, text, threads), kept in a private folder.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libprsr-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libprsr1 (= ${_prsr_deb_version})")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "cluster database configuration library - development files\n Headers (include/prsr/), the static libraries libprsr.a and libprsrutil.a,\n pkg-config files (libprsr, libprsrutil) and the CMake package prsr.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME prsr-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libprsr1 (= ${_prsr_deb_version})")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "cluster database configuration tools\n prsrctl shows and changes database configuration through libprsr;\n hvsctl imports, exports, checks and edits the cluster registry.")

# Dependencies on system libraries (SQLite, the ZooKeeper client, the C++
# runtime...) come from dpkg-shlibdeps. It looks at the project's own
# libraries in the build tree; the dependencies between our packages are
# the ones written above.
# Both need `file`; without it or without dpkg-shlibdeps the packages name
# no system dependency. The runtime package also gets a shlibs file, so
# that packages built against libprsr depend on it.
find_program(PRSR_DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(PRSR_FILE_PROGRAM file)
if(PRSR_DPKG_SHLIBDEPS AND PRSR_FILE_PROGRAM)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "")
  foreach(_l prsr hvsapi lks trc mp txt thr strtab msg ver rsmgr)
    if(TARGET ${_l})
      get_target_property(_dir ${_l} BINARY_DIR)
      list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${_dir})
    endif()
  endforeach()
endif()

include(CPack)
