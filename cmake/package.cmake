# cpack -G DEB: one Debian package, dwe-dv-vexprod, of exactly what install
# puts down, at the configured prefix (configure with
# -DCMAKE_INSTALL_PREFIX=/usr for a distribution's layout; `make package`).
set(CPACK_PACKAGE_NAME dwe-dv-vexprod)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(VEXPROD_PACKAGE_CONTACT "dwe-dv-vexprod maintainers <packaging@dwe-dv-vexprod.invalid>"
  CACHE STRING "Maintainer field of the Debian package")
set(CPACK_PACKAGE_CONTACT ${VEXPROD_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "root service daemon of the VexProServer app, and libdv")
set(CPACK_PACKAGE_DESCRIPTION
  "dwe-dv-vexprod carries out the privileged commands that the unprivileged\n"
  "processes of the VexProServer app send it over a local RPC service, and\n"
  "forwards two System V message queues to the app's notification service.\n"
  "The package also holds libdv, the RPC library with its header, pkg-config\n"
  "file and CMake package, and the command-line tools dv-call and dv-bench.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Depends from the libraries the binaries use; shlibs for libdv.so.N. The
# loader cache is refreshed by a trigger: our own postinst and postrm keep
# CPack from writing ldconfig calls into generated ones.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
configure_file(packaging/conffiles.in conffiles @ONLY)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/conffiles
  ${CMAKE_CURRENT_SOURCE_DIR}/packaging/triggers ${CMAKE_CURRENT_SOURCE_DIR}/packaging/postinst
  ${CMAKE_CURRENT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_GENERATOR DEB)
include(CPack)
