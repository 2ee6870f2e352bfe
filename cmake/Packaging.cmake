# A Debian package of what `cmake --install` puts in place: the library, its headers, CMake and
# pkg-config files and, with QEL_BUILD_TOOLS, qeldns, its man page and qel-httpdns-server.
# Made from a shared build (the `package` preset): the tools then use the packaged library,
# and the package depends only on the run-time libraries, which dpkg-shlibdeps reads off the
# binaries. A static build would need the -dev packages of every private dependency instead.
# Configure with CMAKE_INSTALL_PREFIX=/usr so that the library goes to the multiarch directory.
set(QEL_PACKAGE_MAINTAINER "QelHttpDnsSDK maintainers <maintainers@qelhttpdns.invalid>"
    CACHE STRING "The Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qel-httpdns-sdk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "HTTP-based name resolution client library and tools")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "Resolves host names over HTTP through a resolution service, with a cache kept
in memory and on disk. Contains the QelHttpDnsSDK C++17 library with its
headers, CMake and pkg-config files, the qeldns command-line client,
qel-httpdnsd (a resolver daemon for every program of the machine, with its
name-service module libnss_qelhttpdns and a DNS stub) and qel-httpdns-server,
a reference resolution service.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${QEL_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# pkg-config resolves the library's Requires.private modules even for --cflags; building with
# CMake needs none of them.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS
  "pkg-config, libcurl4-openssl-dev, libssl-dev, libsqlite3-dev")
# A shlibs file for the dpkg-shlibdeps of packages built against it, and ldconfig run after
# installation and removal.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
find_program(QEL_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(QEL_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  # Debian 12's names for the libraries the binaries link.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libc6, libstdc++6, libgcc-s1, libcurl4, libssl3, libsqlite3-0, libc-ares2, libmicrohttpd12, libsystemd0, libldns3")
endif()
# The name-service module goes before "dns" on the hosts: line, and off it again; the
# daemon's configuration is the administrator's.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  "${PROJECT_SOURCE_DIR}/cmake/debian/postinst;${PROJECT_SOURCE_DIR}/cmake/debian/postrm;${PROJECT_SOURCE_DIR}/cmake/debian/conffiles")
include(CPack)
