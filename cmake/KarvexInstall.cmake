# Install rules of libkarvex: the shared library and its header, a pkg-config
# file, a CMake package exporting karvex::karvex, and the udev rule. Included
# from the top-level CMakeLists.txt after the karvex target is defined; the
# tools install themselves from tools/CMakeLists.txt.
include(CMakePackageConfigHelpers)

set(KARVEX_UDEV_RULES_DIR "${CMAKE_INSTALL_PREFIX}/lib/udev/rules.d" CACHE PATH
  "Directory for the udev rule that lets the seat's user open the adapters")
set(KARVEX_CMAKE_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/karvex")

install(TARGETS karvex EXPORT karvexTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/karvex)
install(EXPORT karvexTargets NAMESPACE karvex:: DESTINATION ${KARVEX_CMAKE_INSTALL_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/karvexConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/karvexConfig.cmake
  INSTALL_DESTINATION ${KARVEX_CMAKE_INSTALL_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/karvexConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/karvexConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/karvexConfigVersion.cmake
  DESTINATION ${KARVEX_CMAKE_INSTALL_DIR})

# The .pc file takes the install dirs either relative to the prefix (the
# usual case, kept relocatable through ${prefix}) or absolute.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KARVEX_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(KARVEX_PC_LIBDIR "\${exec_prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(KARVEX_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(KARVEX_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/karvex.pc.in ${CMAKE_CURRENT_BINARY_DIR}/karvex.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/karvex.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES ${CMAKE_SOURCE_DIR}/packaging/udev/70-karvex.rules DESTINATION ${KARVEX_UDEV_RULES_DIR})
