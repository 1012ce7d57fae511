# Install rules of libkarvex: the shared library and its header, a pkg-config
# file, a CMake package exporting karvex::karvex, and the udev rule. Included
# from the top-level CMakeLists.txt after the karvex target is defined; the
# tools install themselves from tools/CMakeLists.txt.
include(CMakePackageConfigHelpers)

# Relative to the prefix unless a packager or a system install gives an
# absolute directory (udev reads /usr/lib/udev/rules.d and /etc/udev/rules.d,
# not /usr/local/...): `cmake --install --prefix DIR` then writes nothing
# outside DIR.
if(KARVEX_UDEV_RULES_DIR STREQUAL "${CMAKE_INSTALL_PREFIX}/lib/udev/rules.d")
  # The absolute default of older build trees; it would pin the rule to the
  # configure-time prefix.
  unset(KARVEX_UDEV_RULES_DIR CACHE)
endif()
set(KARVEX_UDEV_RULES_DIR "lib/udev/rules.d" CACHE STRING
  "Directory for the udev rule that lets the seat's user open the adapters (relative: to the prefix)")
# pkg-config finds the prefix from the .pc file's own place, so an installed
# tree can be moved; distributions, whose prefix never moves, may prefer the
# literal prefix.
option(KARVEX_PC_RELOCATABLE "karvex.pc finds its prefix relative to its own directory" ON)
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
set(KARVEX_PC_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(KARVEX_PC_RELOCATABLE AND NOT IS_ABSOLUTE "${KARVEX_PC_INSTALL_DIR}")
  file(RELATIVE_PATH KARVEX_PC_TO_PREFIX "/root/${KARVEX_PC_INSTALL_DIR}" "/root")
  string(REGEX REPLACE "/$" "" KARVEX_PC_TO_PREFIX "${KARVEX_PC_TO_PREFIX}")
  set(KARVEX_PC_PREFIX "\${pcfiledir}/${KARVEX_PC_TO_PREFIX}")
else()
  set(KARVEX_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
endif()
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
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/karvex.pc DESTINATION ${KARVEX_PC_INSTALL_DIR})

install(FILES ${PROJECT_SOURCE_DIR}/packaging/udev/70-karvex.rules DESTINATION ${KARVEX_UDEV_RULES_DIR})
