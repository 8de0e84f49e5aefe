# Installation and Debian packages.
#
# Three components, one Debian package each:
#   runtime      libqzfs1      libqzfs.so.1 (and the file it names)
#   development  libqzfs-dev   the public headers, the libqzfs.so link, the
#                              pkg-config file and the CMake package
#   tool         qzfs          the host tool and its man page
# `cmake --install BUILD --prefix DIR` installs all three; `cpack` in the
# build directory makes the three .deb files (armhf ones from the ARM
# cross build).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS qzfs EXPORT qzfsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES api/include/qzfilesystem_api.h api/include/qzfs_frame.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(TARGETS qzfs_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(FILES tools/qzfs.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)

# pkg-config --cflags --libs qzfs
file(RELATIVE_PATH QZFS_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/qzfs.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qzfs.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qzfs.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# find_package(qzfs CONFIG) gives the imported target qzfs::qzfs.
set(QZFS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qzfs)
install(EXPORT qzfsTargets NAMESPACE qzfs:: DESTINATION ${QZFS_CMAKE_DIR}
  COMPONENT development)
configure_package_config_file(cmake/qzfsConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/qzfsConfig.cmake INSTALL_DESTINATION ${QZFS_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qzfsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qzfsConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/qzfsConfigVersion.cmake
  DESTINATION ${QZFS_CMAKE_DIR} COMPONENT development)

# Debian packages, one a component. The library and the tool take their
# dependencies from dpkg-shlibdeps on a native build; a cross build names
# them, as dpkg-shlibdeps knows only the build machine's libraries.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qzfs)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "libqzfs developers <libqzfs@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "record file system for multi-channel video recorders")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqzfs1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "record file system for multi-channel video recorders\n libqzfs keeps the frames of many recorder channels on raw disks and finds,\n plays, locks and overwrites them; this package holds the shared library.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqzfs-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "record file system for multi-channel video recorders (development files)\n The header, pkg-config file and CMake package to build applications\n against libqzfs.")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME qzfs)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
  "host tool for libqzfs disks and disk images\n Formats, records, lists, exports, checks and repairs libqzfs disks and\n images from a shell.")

if(CMAKE_CROSSCOMPILING)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  endif()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1, libstdc++6 (>= 12)")
  set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1, libstdc++6 (>= 12)")
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
