# Installation: libraries with their SONAME links, public headers, the
# pkg-config file, a CMake package (find_package(cfgfile) -> cfgfile::cfgfile)
# and a Debian package through CPack.
include(CMakePackageConfigHelpers)

install(TARGETS cfgfile dbgtrace EXPORT cfgfileTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES components/include/cfgfile_api.h components/include/xtypes.h
              components/include/dbgtrace.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES components/include/video/video_formats.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/video COMPONENT dev)

file(RELATIVE_PATH CFGFILE_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/cfgfile.pc.in ${CMAKE_CURRENT_BINARY_DIR}/cfgfile.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/cfgfile.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(CFGFILE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/cfgfile)
install(EXPORT cfgfileTargets NAMESPACE cfgfile:: DESTINATION ${CFGFILE_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/cfgfileConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/cfgfileConfig.cmake INSTALL_DESTINATION ${CFGFILE_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/cfgfileConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/cfgfileConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/cfgfileConfigVersion.cmake
        DESTINATION ${CFGFILE_CMAKE_DIR} COMPONENT dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cfgfile)
set(CPACK_PACKAGE_CONTACT "CFGFILELIB maintainers <maintainers@example.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.33)")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
include(CPack)
