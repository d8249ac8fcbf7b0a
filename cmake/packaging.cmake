# The Debian package of the tray (scripts/package builds it): what the install
# component "tray" holds, under /usr, with the dependencies that
# dpkg-shlibdeps finds for the program. The simulator is not part of it.
if(NOT ZEL5_BUILD_GUI)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zel5-tray)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Orvane")
set(CPACK_PACKAGE_CONTACT "Orvane support <support@orvane.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "tray client for an internet provider's billing account")
set(CPACK_PACKAGE_DESCRIPTION
  "Orvane ZEL5 Tray signs in to the provider's billing server with the subscriber's
login and password and shows the account in the system tray: whether the
internet access is on or off, the balance, the traffic report per service and
traffic class, and the provider's messages. The internet access can be
switched from its menu, and the program can start itself at logon.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};${PROJECT_NAME};tray;/")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The icons are SVG pictures that Qt reads through the plugins of libqt6svg6;
# the program does not link that library itself, so dpkg-shlibdeps cannot
# find it.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt6svg6 (>= 6.4)")

include(CPack)
