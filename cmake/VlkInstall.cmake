# Installation: the program, the library with its headers, a CMake package
# (find_package(vlk) gives vlk::vlk) and a pkg-config file (vlk.pc). Both
# packages are relocatable: they find the prefix from where they stand.
include(CMakePackageConfigHelpers)

set(VLK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vlk)

# The operator's programs and their manual pages.
if(VLK_BUILD_TOOLS OR VLK_BUILD_TESTS)
  install(TARGETS velkmsg vlk-logscan RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  # Linked to libvlk.so, the installed programs find it beside themselves, in
  # whatever prefix the tree lands.
  if(BUILD_SHARED_LIBS)
    file(RELATIVE_PATH _vlk_lib_from_bin /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(velkmsg vlk-logscan PROPERTIES INSTALL_RPATH "$ORIGIN/${_vlk_lib_from_bin}")
  endif()
  # velkmsg's page carries the version in its footer.
  configure_file(man/velkmsg.1 ${PROJECT_BINARY_DIR}/man/velkmsg.1 @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/man/velkmsg.1 ${PROJECT_SOURCE_DIR}/man/vlk-logscan.1
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
# vlk::link_wrappers is installed for a program that opts in to them.
install(TARGETS vlk vlk_link_wrappers EXPORT vlkTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

# The public headers, and what the build stages beside them (the catalogue
# table), under one include root, as in the build tree.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ ${PROJECT_BINARY_DIR}/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT vlkTargets NAMESPACE vlk:: DESTINATION ${VLK_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/vlkConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/vlkConfig.cmake
                              INSTALL_DESTINATION ${VLK_INSTALL_CMAKEDIR})
# 0.x: a minor release may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vlkConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vlkConfig.cmake ${PROJECT_BINARY_DIR}/vlkConfigVersion.cmake
        DESTINATION ${VLK_INSTALL_CMAKEDIR})

# pkg-config: vlk.pc for the library, vlk-link-wrappers.pc for a program
# that opts in to the libc wrappers; their link options go into Libs in the
# compiler driver's spelling, so that it links as a CMake consumer does.
get_target_property(_vlk_pc_link_options vlk_link_wrappers INTERFACE_LINK_OPTIONS)
list(TRANSFORM _vlk_pc_link_options REPLACE "^LINKER:" "-Wl,")
list(JOIN _vlk_pc_link_options " " VLK_PC_LINK_OPTIONS)
file(RELATIVE_PATH VLK_PC_PREFIX_FROM_PCFILEDIR /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix/)
string(REGEX REPLACE "/$" "" VLK_PC_PREFIX_FROM_PCFILEDIR "${VLK_PC_PREFIX_FROM_PCFILEDIR}")
foreach(_vlk_pc vlk vlk-link-wrappers)
  configure_file(cmake/${_vlk_pc}.pc.in ${PROJECT_BINARY_DIR}/${_vlk_pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${_vlk_pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# The licence and the changelog, where Debian keeps a package's documents.
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

include(cmake/VlkPackage.cmake)
