# The Debian package. In a built tree, `cpack -G DEB` makes
# t4mi-scrolltext_<version>_amd64.deb: what `cmake --install` puts below /usr,
# plus the fixed-path assets, which live outside any prefix and which only
# the package installs (cmake/package_assets.cmake). scripts/package.sh
# configures and builds a Release tree for it and runs cpack.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME t4mi-scrolltext)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "t4mi_scrolltext developers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "scrolling-text media item server for playout systems")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "A playout system starts one t4mi_scrolltext process per item file (a news
ticker, a crawl, a caption); it serves YUVA frames of the item, rendered
with FreeType into shared memory, to the clients of its control socket.

Includes the tools t4mi_render, t4mi_control and t4mi_frames, and the client
library libt4mi_client (shared and static) with its headers, pkg-config file
and CMake package.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)  # t4mi-scrolltext_<version>_<arch>.deb
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Installed below /usr through DESTDIR, so that the pkg-config file names
# /usr and not the staging directory.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
# The libraries' packages come from dpkg-shlibdeps (cmake/package_depends.cmake);
# the downloader and the fonts the fixed paths link to are named here.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "curl, fonts-liberation, fonts-symbola")
# libt4mi_client for other packages' dpkg-shlibdeps, and ldconfig after
# install and removal.
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/shlibs.in ${PROJECT_BINARY_DIR}/debian/shlibs @ONLY)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/cmake/debian/postinst ${PROJECT_SOURCE_DIR}/cmake/debian/postrm
  ${PROJECT_SOURCE_DIR}/cmake/debian/triggers ${PROJECT_BINARY_DIR}/debian/shlibs)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The assets step needs the emoji image tool of this build.
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/package_tools.cmake
  CONTENT "set(T4MI_EMOJI_TOOL \"$<TARGET_FILE:make_emoji_pngs>\")\n")
set(CPACK_T4MI_TOOLS_FILE ${PROJECT_BINARY_DIR}/package_tools.cmake)
set(CPACK_T4MI_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package_assets.cmake
  ${PROJECT_SOURCE_DIR}/cmake/package_depends.cmake)
include(CPack)
