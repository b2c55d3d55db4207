# What `cmake --install` places, relative to the installation prefix: the programs, the desktop
# entry, the AppStream metainfo, the icon, the alert rules and dashboard, and the manual pages. The helper and its systemd units
# are installed beside their build rules.

install(TARGETS vantorix-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET vantorix)
  install(TARGETS vantorix RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(FILES packaging/desktop/com.vantorix.Vantorix.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
string(TIMESTAMP VANTORIX_RELEASE_DATE "%Y-%m-%d" UTC)
set(VANTORIX_RELEASE_DATE "${VANTORIX_RELEASE_DATE}" CACHE STRING "Release date in the AppStream metainfo (YYYY-MM-DD)")
configure_file(packaging/desktop/com.vantorix.Vantorix.metainfo.xml.in
               ${CMAKE_CURRENT_BINARY_DIR}/packaging/com.vantorix.Vantorix.metainfo.xml @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/com.vantorix.Vantorix.metainfo.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
install(FILES src/ui/icons/vantorix.svg DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps
        RENAME com.vantorix.Vantorix.svg)

# For fleets: the alert rules (their promtool tests stay in the source tree) and the Grafana dashboard.
install(FILES packaging/prometheus/vantorix-rules.yml DESTINATION ${CMAKE_INSTALL_DATADIR}/vantorix/prometheus)
install(FILES packaging/grafana/vantorix.json DESTINATION ${CMAKE_INSTALL_DATADIR}/vantorix/grafana)

# Manual pages from the programs' own --help (help2man), with hand-written sections beside,
# compressed as Debian installs them (man reads them either way).
find_program(HELP2MAN help2man)
if(HELP2MAN)
  set(man_dir ${CMAKE_CURRENT_BINARY_DIR}/man)
  set(cli_subcommands info monitor bench smart helper check-update feedback serve)
  add_custom_command(
    OUTPUT ${man_dir}/vantorix-cli.1.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${man_dir}
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/packaging/man/manpage.sh $<TARGET_FILE:vantorix-cli>
            "inspect and measure one storage volume" ${CMAKE_CURRENT_SOURCE_DIR}/packaging/man/vantorix-cli.h2m
            ${man_dir}/vantorix-cli.1 ${cli_subcommands}
    COMMAND gzip -9nf ${man_dir}/vantorix-cli.1
    DEPENDS vantorix-cli packaging/man/manpage.sh packaging/man/vantorix-cli.h2m
    VERBATIM)
  set(man_pages ${man_dir}/vantorix-cli.1.gz)
  if(TARGET vantorix)
    add_custom_command(
      OUTPUT ${man_dir}/vantorix.1.gz
      COMMAND ${CMAKE_COMMAND} -E make_directory ${man_dir}
      COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/packaging/man/manpage.sh $<TARGET_FILE:vantorix>
              "watch, benchmark and check the health of a storage volume"
              ${CMAKE_CURRENT_SOURCE_DIR}/packaging/man/vantorix.h2m ${man_dir}/vantorix.1
      COMMAND gzip -9nf ${man_dir}/vantorix.1
      DEPENDS vantorix packaging/man/manpage.sh packaging/man/vantorix.h2m
      VERBATIM)
    list(APPEND man_pages ${man_dir}/vantorix.1.gz)
  endif()
  add_custom_target(vantorix_manpages ALL DEPENDS ${man_pages})
  install(FILES ${man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
  message(STATUS "help2man not found: no manual pages")
endif()

include(packaging/Package.cmake)
