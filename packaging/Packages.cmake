# Debian packages from the install components; scripts/package builds them.
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL daemon platform tools dev)
if(KX_VELTRADEBUG_LIBRARY AND KX_QTPLATFORM_LIBRARY)
  list(REMOVE_ITEM CPACK_COMPONENTS_ALL platform) # both are the platform's own
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_NAME kxcore)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each description below begins with its own
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Runs on each package's tree before it is packed.
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_SOURCE_DIR}/cmake/FinishPackage.cmake")
set(CPACK_KX_STRIP "${CMAKE_STRIP}")
set(CPACK_KX_DEBIAN_DIR "${CMAKE_CURRENT_SOURCE_DIR}/debian")

set(KX_MAINTAINER "The kxcore developers <kxcore@example.com>" CACHE STRING "Maintainer named in the packages")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KX_MAINTAINER}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The package's own shared libraries are found in the build tree; what needs them names their package below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CMAKE_BINARY_DIR}/platform/qtplatform" "${CMAKE_BINARY_DIR}/platform/veltradebug")
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps knows only the packages of this machine. What it finds for them:
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${_kx_arch})
  set(_platform_libraries "libc6 (>= 2.34), libgcc-s1, libqt5core5a (>= 5.15.1), libstdc++6 (>= 11)")
  set(_tools_libraries ", ${_platform_libraries}, libqt5dbus5 (>= 5.14.1), libqt5xml5 (>= 5.1.0)")
  set(_daemon_libraries "${_tools_libraries}, libcurl4 (>= 7.16.2)")
endif()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(_this "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME kxcore)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS
  "kxcore-platform, adduser, default-dbus-system-bus | dbus-system-bus, dbus-bin${_daemon_libraries}")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS "kxcore-tools")
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS "lighttpd")
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
  "${CPACK_KX_DEBIAN_DIR}/daemon/conffiles" "${CPACK_KX_DEBIAN_DIR}/daemon/postinst"
  "${CPACK_KX_DEBIAN_DIR}/daemon/prerm" "${CPACK_KX_DEBIAN_DIR}/daemon/postrm")
set(CPACK_COMPONENT_DAEMON_DESCRIPTION
  "core management daemon of a payment terminal
Finds the installed applications, runs each under an account of its own,
publishes their pages to the local web server and tells the browser what to
show. Members of the group kxcore ask it over D-Bus to start and stop
applications, members of kxadmin for what only root may do otherwise.

Do not install it on anything but a terminal: it stops processes of the
accounts 4000 to 4999 and re-owns directories.")

set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME kxcore-platform)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_DEPENDS "${_platform_libraries}")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_CONTROL_EXTRA
  "${CPACK_KX_DEBIAN_DIR}/platform/postrm" "${CPACK_KX_DEBIAN_DIR}/platform/triggers")
install(FILES debian/platform/lintian-overrides
  DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" RENAME kxcore-platform COMPONENT platform)
set(CPACK_COMPONENT_PLATFORM_DESCRIPTION
  "logging and registry libraries for the core management daemon
Stand-ins for two libraries of a terminal's platform: libveltradebug hands
log records to syslog, libqtplatform keeps the registry in a file. A platform
with libraries of its own installs those in a package that provides,
conflicts with and replaces this one.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kxcore-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "kxcore-platform${_tools_libraries}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "bash-completion")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "command line for the core management daemon of a payment terminal
kxctl calls every operation of the daemon and checks the configuration of
applications; kxregistry reads, changes and watches the terminal's registry.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME kxcore-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "kxcore-platform ${_this}, qtbase5-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "client interfaces of the core management daemon of a payment terminal
The D-Bus interfaces as XML, a static library of Qt proxies for them, the
header of the registry, and a CMake package with the targets kxcore::proxies
and kxcore::registry.")

foreach(_component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER "${_component}" _upper)
  set(_package "${CPACK_DEBIAN_${_upper}_PACKAGE_NAME}")
  install(FILES debian/copyright DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${_package}" COMPONENT ${_component})
endforeach()

include(CPack)
