# The Debian package (cpack -G DEB, or packaging/build-deb.sh): everything `cmake --install`
# places, under /usr, with the shared-library dependencies dpkg-shlibdeps finds and the programs
# Vantorix runs. Installing it enables nothing; the desktop app asks for the helper when it first
# needs it.

set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/vantorix)
install(FILES packaging/debian/copyright DESTINATION ${doc_dir})
set(changelog ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.Debian.gz)
add_custom_command(OUTPUT ${changelog}
                   COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/changelog > ${changelog}
                   DEPENDS packaging/debian/changelog VERBATIM)
add_custom_target(vantorix_changelog ALL DEPENDS ${changelog})
install(FILES ${changelog} DESTINATION ${doc_dir})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vantorix)
set(CPACK_PACKAGE_VENDOR "The Vantorix developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "watch, benchmark and check the health of storage volumes")
set(CPACK_PACKAGE_DESCRIPTION
    "Vantorix describes the volume behind a folder (device, file system,
capacity, how the drive is attached, vendor and model), watches its live
read and write traffic from the block layer, benchmarks it in four phases
with an HTML report, and shows the drive's SMART health through a small
privileged helper that runs smartctl. A desktop application and a
command-line tool, in English and Chinese.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The Vantorix developers <developers@vantorix.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Qt loads its SVG icon and image plugins at run time, so no library of the programs names them.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "smartmontools, pkexec, libqt6svg6")
# Chinese text, and opening a downloaded update with the desktop's default application.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fonts-noto-cjk | fonts-wqy-microhei, xdg-utils")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
