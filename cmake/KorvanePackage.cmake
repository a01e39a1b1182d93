# `make package`: one Debian package with the libraries, headers, CMake and
# pkg-config files, both programs and the manual page. Library dependencies
# come from dpkg-shlibdeps; only the ffmpeg program, which no library links,
# is named by hand.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvane)
set(CPACK_PACKAGE_VENDOR "The Korvane developers")
set(CPACK_PACKAGE_CONTACT "Korvane developers <korvane@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "ffmpeg conversion plug-in for a video editor")
set(CPACK_PACKAGE_DESCRIPTION
    "A library a desktop video editor loads to convert a video with its edits\n"
    "(crop, flips, rotation, cuts, speed, colour, volume, watermarks, tracks)\n"
    "through the ffmpeg program, with progress reported through Qt signals and a\n"
    "fallback to an out-of-process converter. Includes the command-line host\n"
    "korvane-convert, the worker program and the files to build a host against\n"
    "the library (headers, CMake package, pkg-config file).")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS ffmpeg)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# dpkg refreshes the dynamic linker's cache through this trigger (the
# maintainer scripts CPack adds call ldconfig as well, in the older way).
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/package)

# The copyright file and the compressed changelog every Debian package
# carries under /usr/share/doc/<package>.
set(KORVANE_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_PACKAGE_NAME})
set(changelogGz ${CMAKE_BINARY_DIR}/debian/changelog.gz)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/debian)
korvane_gzip(${CMAKE_CURRENT_LIST_DIR}/debian/changelog ${changelogGz})
add_custom_target(korvane-changelog ALL DEPENDS ${changelogGz})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${changelogGz} DESTINATION ${KORVANE_DOC_DIR})

include(CPack)
