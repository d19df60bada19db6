# Install rules and the Debian package of the agent (included by the top-level
# CMakeLists.txt; script/package builds the package from a clean tree).
#
#   <prefix>/bin/qel_net                          the agent
#   <prefix>/lib/systemd/system/qel_net.service   its systemd unit
#   <prefix>/share/qel-net/tools/                 simulators and the configuration writer
#   <prefix>/share/doc/qel-net/                   README, design notes, copyright, changelog
#   <prefix>/share/man/man8/qel_net.8.gz          the manual page

include(GNUInstallDirs)

install(TARGETS qel_net RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The unit names the binary by its full path: /usr/bin/qel_net in the file, as
# the package installs it; an installation under another prefix gets a unit
# that names the binary it installed.
set(QEL_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
    "Where the systemd unit is installed, relative to the installation prefix")
install(CODE "set(qel_unit_source \"${CMAKE_CURRENT_LIST_DIR}/qel_net.service\")
set(qel_unit_staged \"${CMAKE_BINARY_DIR}/packaging/qel_net.service\")
set(qel_unit_bindir \"${CMAKE_INSTALL_BINDIR}\")")
install(CODE [[
  file(READ "${qel_unit_source}" qel_unit)
  string(REPLACE "=/usr/bin/qel_net " "=${CMAKE_INSTALL_PREFIX}/${qel_unit_bindir}/qel_net "
         qel_unit "${qel_unit}")
  file(WRITE "${qel_unit_staged}" "${qel_unit}")
]])
install(FILES ${CMAKE_BINARY_DIR}/packaging/qel_net.service DESTINATION ${QEL_SYSTEMD_UNIT_DIR})

set(QEL_TOOLS_DIR ${CMAKE_INSTALL_DATADIR}/qel-net/tools)
install(PROGRAMS tools/qel_server_sim.py tools/qel_app_sim.py tools/qel_cdn_sink.py tools/qel_config.py
        DESTINATION ${QEL_TOOLS_DIR})
install(FILES tools/qel_simnet.py tools/README.md DESTINATION ${QEL_TOOLS_DIR})

install(FILES README.md docs/design.md docs/benchmarks.md packaging/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qel-net)

# The manual page (with the project's version) and the Debian changelog go
# compressed, as Debian keeps them: gzip -9n, no name or time stamp inside.
# The version has no Debian revision (a native package), so the changelog
# is changelog.gz rather than changelog.Debian.gz.
configure_file(packaging/qel_net.8 ${CMAKE_BINARY_DIR}/packaging/qel_net.8 @ONLY)
install(CODE "foreach(page qel_net.8 changelog)
  execute_process(COMMAND gzip -9nc \"${CMAKE_BINARY_DIR}/packaging/\${page}\"
                  OUTPUT_FILE \"${CMAKE_BINARY_DIR}/packaging/\${page}.gz\" COMMAND_ERROR_IS_FATAL ANY)
endforeach()")
configure_file(packaging/changelog ${CMAKE_BINARY_DIR}/packaging/changelog COPYONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/qel_net.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_BINARY_DIR}/packaging/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qel-net)

# ---- Debian package (cpack -G DEB) ------------------------------------------

set(QEL_PACKAGE_MAINTAINER
    "qel_net maintainers <maintainers@users.noreply.c-seed-2afd7dc2.example>"
    CACHE STRING "Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qel-net)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${QEL_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "network agent of an automated optical inspection machine")
# The summary is the first line of the Description field, this the rest.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"qel_net runs beside the inspection application, takes its status and data
messages over a local TCP link and reports them to the central server over
HTTP/1.1. Every request is kept in SQLite until the server has answered it.
.
The package holds the agent, its systemd unit (qel_net.service) and, for
integrators, the server and application simulators.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Libraries come from dpkg-shlibdeps. What the agent loads or runs by name is
# listed here: Qt's SQLite driver (a plugin), and top for the run-state
# reports (tar, gzip and timeout are essential).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt${QEL_QT_MAJOR}sql${QEL_QT_MAJOR}-sqlite, procps")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3, sqlite3")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/postinst ${CMAKE_CURRENT_LIST_DIR}/prerm ${CMAKE_CURRENT_LIST_DIR}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The agent ships stripped; its debug symbols stay in the build tree.
set(CPACK_STRIP_FILES ON)

include(CPack)
