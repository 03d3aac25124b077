# Installation and the Debian package: where the daemon, ftps-cli, the man pages, the systemd
# unit and the example files go (make install, make deb). The default prefix is /usr, as for a
# distribution package.
include(GNUInstallDirs)

# Installing and packaging take what is built; "make install" and "make deb" build the two
# programs first, so that packaging never rebuilds the whole test suite.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)

install(TARGETS ftp_server.elf RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS ftps-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The daemon's modules (TLS, RADIUS, SNMP), where it looks for them relative to itself.
install(TARGETS ftps-tls ftps-radius ftps-pam ftps-snmp LIBRARY DESTINATION ${FTPS_MODULE_INSTALL_DIR})
install(FILES ${CMAKE_SOURCE_DIR}/docs/man/ftp_server.elf.8 ${CMAKE_SOURCE_DIR}/docs/man/ftps-cli.8
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_SOURCE_DIR}/docs/man/ftps-platform.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/examples/platform.conf ${CMAKE_SOURCE_DIR}/packaging/examples/startup.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# Decided when installing, because the prefix may be given then (cmake --install --prefix):
# - the unit goes where systemd looks for the prefix (/lib/systemd/system for /usr, else
#   PREFIX/lib/systemd/system) and starts the daemon from PREFIX/sbin;
# - /etc/ftps/platform.conf, the path the daemon reads by default, is installed from the example
#   unless the administrator's own file is already there;
# - the fail2ban filter and jail go where fail2ban reads them, /etc/fail2ban, whatever the prefix;
#   they are replaced on every install, since fail2ban takes local changes from the .local files
#   beside them (the jail is off until enabled there).
install(CODE "set(FTPS_SOURCE_DIR \"${CMAKE_SOURCE_DIR}\")")
install(CODE [[
  set(_prefix "${CMAKE_INSTALL_PREFIX}")
  if(_prefix STREQUAL "/usr")
    set(_unit_dir "/lib/systemd/system")
  else()
    set(_unit_dir "${_prefix}/lib/systemd/system")
  endif()
  file(READ "${FTPS_SOURCE_DIR}/packaging/ftp_server.service" _unit)
  string(REPLACE "ExecStart=/usr/sbin/" "ExecStart=${_prefix}/sbin/" _unit "${_unit}")
  set(_unit_file "$ENV{DESTDIR}${_unit_dir}/ftp_server.service")
  message(STATUS "Installing: ${_unit_file}")
  file(WRITE "${_unit_file}" "${_unit}")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${_unit_dir}/ftp_server.service")

  set(_conf "$ENV{DESTDIR}/etc/ftps/platform.conf")
  if(EXISTS "${_conf}")
    message(STATUS "Keeping: ${_conf}")
  else()
    # file(INSTALL) puts DESTDIR in front of an absolute destination itself.
    file(INSTALL "${FTPS_SOURCE_DIR}/packaging/examples/platform.conf" DESTINATION "/etc/ftps"
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endif()
  foreach(_f2b filter.d jail.d)
    file(INSTALL "${FTPS_SOURCE_DIR}/packaging/fail2ban/${_f2b}/ftps.conf" DESTINATION "/etc/fail2ban/${_f2b}"
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endforeach()
]])

# The Debian package (make deb). Dependencies on the runtime libraries come from dpkg-shlibdeps;
# Everything below /etc is a conffile (the platform file, the fail2ban filter and jail), so dpkg
# keeps the administrator's changes on upgrade.
set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "ftps")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "ftps maintainers <ftps@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "FTP server daemon of a switch operating system, for plain Linux")
set(CPACK_PACKAGE_DESCRIPTION "ftp_server.elf serves FTP on IPv4 and IPv6 below one configured top directory, \
with the users of its own table and AAA (local database, RADIUS, PAM); ftps-cli is its management terminal.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "net")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "fail2ban")
# The package always installs below /usr, whatever prefix the build directory was configured with.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX "/usr")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
file(WRITE ${CMAKE_BINARY_DIR}/debian/conffiles
     "/etc/ftps/platform.conf\n/etc/fail2ban/filter.d/ftps.conf\n/etc/fail2ban/jail.d/ftps.conf\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
include(CPack)
