# What `cmake --install` puts in place beyond each target's own rule: the
# platform libraries in the export set that the library's package uses, the
# public and platform headers, the pkg-config file and the CMake package
# (prsrConfig.cmake with the target prsr::prsr).
include(CMakePackageConfigHelpers)

# The platform libraries that libprsr links against join its export set, so
# that prsr::prsr brings them along. Their files are installed by their own
# rules too; installing a target twice to one place is harmless.
set(PRSR_INSTALL_PLATFORM_LIBS hvsapi lks trc mp txt thr)
install(TARGETS ${PRSR_INSTALL_PLATFORM_LIBS} EXPORT prsrTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Installed programs and libraries find their neighbours in ../lib.
set_target_properties(prsr ${PRSR_INSTALL_PLATFORM_LIBS} prsrctl hvsctl
  PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

# The C headers of every platform library (the engine interface hvs/backend.h
# stays private: it is C++ and needs the source tree's location parser).
file(GLOB PRSR_PLATFORM_HEADERS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/platform/*/include/*.h)
install(FILES ${PRSR_PLATFORM_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# CMake package: find_package(prsr) gives prsr::prsr (shared) and
# prsr::prsr_static, with the platform libraries as prsr::hvsapi and so on.
set(PRSR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/prsr)
install(EXPORT prsrTargets NAMESPACE prsr:: DESTINATION ${PRSR_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/prsrConfig.cmake.in
  ${PROJECT_BINARY_DIR}/prsrConfig.cmake INSTALL_DESTINATION ${PRSR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/prsrConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/prsrConfig.cmake
  ${PROJECT_BINARY_DIR}/prsrConfigVersion.cmake DESTINATION ${PRSR_CMAKE_DIR})

# pkg-config: `pkg-config --cflags --libs libprsr`. The prefix is taken from
# where the file lies, so `cmake --install --prefix P` gives a correct file.
file(RELATIVE_PATH PRSR_PC_TO_PREFIX
  "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${CMAKE_CURRENT_LIST_DIR}/libprsr.pc.in
  ${PROJECT_BINARY_DIR}/libprsr.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libprsr.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
