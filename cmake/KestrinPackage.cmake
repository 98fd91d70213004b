# The Debian package a facility installs with apt (scripts/package builds it from a clean tree):
# the agent's bundle in the maker's tree under /opt/quorvane, the setuid helper in its fixed
# root-owned place, the PAM service and the user unit as "-setup" writes them, ambrant and the
# manual pages. Paths are relative to "/".
set(KESTRIN_PACKAGE_SOURCE "${CMAKE_SOURCE_DIR}/packaging")
set(KESTRIN_PACKAGE_BUILD "${CMAKE_BINARY_DIR}/packaging")
set(bundle "opt/quorvane/Applications/Kestrin.app")
set(agent "/${bundle}/Contents/MacOS/Kestrin")

install(TARGETS Kestrin kestrin-auth ditto kestrin-maintenance
        RUNTIME DESTINATION "${bundle}/Contents/MacOS")
install(FILES "${KESTRIN_BUNDLE_DIR}/Contents/Info.plist" DESTINATION "${bundle}/Contents")
install(FILES ${KESTRIN_BUNDLE_IMAGES} DESTINATION "${bundle}/Contents/Resources")
# Where the agent looks for the helper; the bundle's own copy above is never setuid.
install(TARGETS kestrin-auth RUNTIME DESTINATION usr/lib/kestrin
        PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                    WORLD_EXECUTE SETUID)
install(TARGETS ambrant RUNTIME DESTINATION usr/bin)
install(CODE "file(CREATE_LINK \"/${bundle}/Contents/MacOS/kestrin-maintenance\"
  \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/usr/bin/kestrin-maintenance\" SYMBOLIC)")

# The unit and the PAM service, written by set-up's own code for the installed agent.
set(system_files "${KESTRIN_PACKAGE_BUILD}/system")
add_custom_command(
  OUTPUT "${system_files}/com.quorvane.Kestrin.service" "${system_files}/kestrin-auth"
  COMMAND kestrin-system-files "${system_files}" "${agent}"
  DEPENDS kestrin-system-files)
# Manual pages and the changelog compressed as Debian wants them: reproducibly, without names.
set(compressed "")
foreach(page Kestrin.1 ambrant.1 kestrin-maintenance.1)
  set(out "${KESTRIN_PACKAGE_BUILD}/man/${page}.gz")
  add_custom_command(OUTPUT "${out}"
    COMMAND ${CMAKE_COMMAND} -E make_directory "${KESTRIN_PACKAGE_BUILD}/man"
    COMMAND gzip -9nc "${KESTRIN_PACKAGE_SOURCE}/man/${page}" > "${out}"
    DEPENDS "${KESTRIN_PACKAGE_SOURCE}/man/${page}")
  list(APPEND compressed "${out}")
  install(FILES "${out}" DESTINATION usr/share/man/man1)
endforeach()
set(changelog "${KESTRIN_PACKAGE_BUILD}/changelog.gz")
add_custom_command(OUTPUT "${changelog}"
  COMMAND gzip -9nc "${KESTRIN_PACKAGE_SOURCE}/debian/changelog" > "${changelog}"
  DEPENDS "${KESTRIN_PACKAGE_SOURCE}/debian/changelog")
add_custom_target(kestrin_package_files ALL DEPENDS "${system_files}/com.quorvane.Kestrin.service"
  "${system_files}/kestrin-auth" ${compressed} "${changelog}")

install(FILES "${system_files}/com.quorvane.Kestrin.service" DESTINATION usr/lib/systemd/user)
install(FILES "${system_files}/kestrin-auth" DESTINATION etc/pam.d)
install(FILES "${KESTRIN_PACKAGE_SOURCE}/debian/copyright" "${changelog}"
        DESTINATION usr/share/doc/kestrin)
install(FILES "${KESTRIN_PACKAGE_SOURCE}/debian/lintian-overrides"
        DESTINATION usr/share/lintian/overrides RENAME kestrin)

# The maintainer scripts share one function, pasted into each.
file(READ "${KESTRIN_PACKAGE_SOURCE}/debian/user-managers.sh" user_managers)
set(control "")
foreach(script postinst prerm postrm)
  file(READ "${KESTRIN_PACKAGE_SOURCE}/debian/${script}" text)
  string(REPLACE "#USER_MANAGERS#" "${user_managers}" text "${text}")
  file(WRITE "${KESTRIN_PACKAGE_BUILD}/control/${script}" "${text}")
  list(APPEND control "${KESTRIN_PACKAGE_BUILD}/control/${script}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
               "${KESTRIN_PACKAGE_SOURCE}/debian/${script}")
endforeach()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             "${KESTRIN_PACKAGE_SOURCE}/debian/user-managers.sh")
list(APPEND control "${KESTRIN_PACKAGE_SOURCE}/debian/conffiles")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestrin)
set(CPACK_PACKAGE_VENDOR Quorvane)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGING_INSTALL_PREFIX "/")
set(CPACK_STRIP_FILES TRUE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Quorvane <kestrin@quorvane.com>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "maintenance agent for post-production editing workstations")
set(CPACK_PACKAGE_DESCRIPTION
  "Kestrin runs on each editing workstation as a service of the user at the\n"
  "console. An administrator's machine finds it by DNS-SD, calls it over TCP and\n"
  "hears back from it: it runs the maker's maintenance tools, gathers crash\n"
  "reports and logs, backs up preference sets, and manages plug-ins, software\n"
  "updates and render-cluster jobs. The package also holds ambrant, the\n"
  "command-line administration client.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
# Libraries from dpkg-shlibdeps; the programs that the agent runs by path come on top.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd, psmisc, graphicsmagick")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "avahi-daemon, dbus-user-session, adwaita-icon-theme, xdg-utils")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${control}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
include(CPack)
