# Debian packages, made with `cpack -G DEB` in a build tree (scripts/package.sh):
#   libnxaclient0    the three shared libraries: the library, the platform
#                    layer and the host kit
#   libnxaclient-dev headers, unversioned links, pkg-config files, the CMake package
#   nxahost          nxahost, nxactl, nxapack, nxabuild, the systemd units, the
#                    host's settings file, the broker's configuration, the man pages
#                    (gzip-compressed, as Debian ships them)
# Depends lines come from the libraries the files link to (dpkg-shlibdeps),
# plus what the packages need of each other and of the system.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nxaclient)
set(CPACK_PACKAGE_VENDOR "nxaclient maintainers")
set(CPACK_PACKAGE_CONTACT "nxaclient maintainers <maintainers@users.noreply.c-seed-554ee970.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "hosts a device's modules on terminals and serves their output")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/compress_man_pages.cmake)

set(nxa_version "${PROJECT_VERSION}")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libnxaclient0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The host kit's browser console loads the GLib event library of libwebsockets
# at run time.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libwebsockets-evlib-glib")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "module host library: runtime\n libnxaclient.so.0, the platform layer libvlplatform.so.0 and the host kit\n libnxahost.so.0.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libnxaclient-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The host kit's headers include nlohmann's JSON.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libnxaclient0 (= ${nxa_version}), nlohmann-json3-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "module host library: development files\n Headers, unversioned links, pkg-config files and the CMake package\n (find_package(nxaclient CONFIG [COMPONENTS nxahost])).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME nxahost)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
# The browser console serves the terminal library of node-xterm and libjs-xterm.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libnxaclient0 (= ${nxa_version}), mosquitto, node-xterm, libjs-xterm")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "mosquitto-clients")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "make, g++, gcc, zip, unzip")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "module host: the nxahost service and its tools\n nxahost runs the device's modules, nxactl operates it, nxapack and\n nxabuild make module packages. With systemd units for the host and its\n bus broker.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/debian/conffiles
  ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
  ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
  ${CMAKE_CURRENT_LIST_DIR}/debian/postrm)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# A shlibs file, and the ldconfig trigger that comes with it.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
# The tools link the project's own libraries, which dpkg-shlibdeps finds in the
# runtime package's staging tree; the Depends lines above name that package.
# dpkg-shlibdeps runs in the staging tree of the package it looks at, a sibling
# of the runtime one, wherever `cpack -B` puts them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "../runtime/usr/${CMAKE_INSTALL_LIBDIR}")

include(CPack)
