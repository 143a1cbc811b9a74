# What `make install` (cmake --install, DESTDIR respected) and `cpack -G DEB`
# put on a machine: the daemon, the tools, libdv with its header, pkg-config
# file and CMake package, the man pages, dv-call's completion and service
# files for integrators. The simulated platform, the tests and the
# benchmarks stay in the build tree.
include(CMakePackageConfigHelpers)

install(TARGETS dwe-dv-vexprod RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS dv-call dv-bench RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS dv EXPORT dvTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES framework/include/dv.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# pkg-config: cc $(pkg-config --cflags --libs dv)
configure_file(cmake/dv.pc.in dv.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/dv.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# CMake: find_package(dv) gives the imported target dv::dv.
set(VEXPROD_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/dv)
install(EXPORT dvTargets NAMESPACE dv:: DESTINATION ${VEXPROD_CMAKE_DIR})
configure_package_config_file(cmake/dvConfig.cmake.in dvConfig.cmake INSTALL_DESTINATION ${VEXPROD_CMAKE_DIR})
write_basic_package_version_file(dvConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/dvConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/dvConfigVersion.cmake
  DESTINATION ${VEXPROD_CMAKE_DIR})

# Completion of dv-call's options and of the service names it is used with.
install(FILES packaging/dv-call.bash-completion RENAME dv-call
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

# Service files. Under the /usr prefix the init script lands in /etc/init.d.
set(VEXPROD_SYSTEMD_UNIT_DIR "" CACHE PATH "Where the systemd unit goes (default PREFIX/lib/systemd/system)")
set(unit_dir ${VEXPROD_SYSTEMD_UNIT_DIR})
if(NOT unit_dir)
  set(unit_dir ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
endif()
configure_file(packaging/dwe-dv-vexprod.service.in dwe-dv-vexprod.service @ONLY)
configure_file(packaging/dwe-dv-vexprod.init.in dwe-dv-vexprod.init @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/dwe-dv-vexprod.service DESTINATION ${unit_dir})
install(PROGRAMS ${CMAKE_CURRENT_BINARY_DIR}/dwe-dv-vexprod.init RENAME dwe-dv-vexprod
  DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d)

# What a Debian package must carry beside the programs.
add_custom_command(OUTPUT changelog.gz
  COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/packaging/changelog > changelog.gz
  DEPENDS packaging/changelog VERBATIM)
add_custom_target(changelog ALL DEPENDS changelog.gz)
install(FILES packaging/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/dwe-dv-vexprod)

include(cmake/package.cmake)
