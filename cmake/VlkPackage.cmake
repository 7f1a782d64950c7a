# A Debian package of what `cmake --install` installs, under /usr:
#   cpack -G DEB --config build/CPackConfig.cmake
# writes vlk_<version>_<arch>.deb. Its dependencies on shared libraries are
# computed by dpkg-shlibdeps from the programs (and from libvlk.so in a
# BUILD_SHARED_LIBS build); the headers include <pcre.h> and <zlib.h>, so a
# program built against the library wants the two -dev packages, which the
# package recommends rather than requires: velkmsg itself needs neither.
set(VLK_PACKAGE_MAINTAINER "The vlk authors" CACHE STRING
    "Maintainer field of the Debian package: name <address>")

set(CPACK_PACKAGE_NAME vlk)
set(CPACK_PACKAGE_VENDOR "The vlk authors")
set(CPACK_PACKAGE_CONTACT "${VLK_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
    "velkmsg prints the catalogue row (level, description and recommended action) of a
server log message given its identifier or a regular expression over identifiers.
The package also holds the vlk C++20 toolkit under it: the library, its headers,
a CMake package (find_package(vlk)) and a pkg-config module.")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libpcre3-dev, zlib1g-dev")

include(CPack)
