# The Debian packages, built by scripts/package: verdo-driver, verdo-browser and verdo-driver-app, one
# for each component of the installation (and none for the local service).

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL driver browser app)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Verdo <maintainers@verdo.example>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION net)

set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_DRIVER_PACKAGE_NAME verdo-driver)
set(CPACK_DEBIAN_DRIVER_DESCRIPTION "worker for the Verdo web service, without a window
Fetches the jobs that the Verdo web service has queued for its user, runs them
in the user's logged-in browser or asks the user's LLM provider, and streams
back what comes of them. Sessions and keys stay on this computer.

This package has the command line program, for a terminal or, with the unit
that it brings, for systemd.")
set(CPACK_DEBIAN_DRIVER_PACKAGE_RECOMMENDS "verdo-browser, ca-certificates")
set(CPACK_DEBIAN_DRIVER_PACKAGE_CONTROL_EXTRA ${debian}/driver/postinst ${debian}/driver/postrm)

set(CPACK_DEBIAN_BROWSER_PACKAGE_NAME verdo-browser)
set(CPACK_DEBIAN_BROWSER_DESCRIPTION "runs browser scripts in Chromium for Verdo drivers
Runs the scripts of browser jobs in Chromium: every task space has windows and
logins of its own, and outlives the script that opened it.")
set(CPACK_DEBIAN_BROWSER_PACKAGE_SECTION web)
set(CPACK_DEBIAN_BROWSER_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_BROWSER_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_BROWSER_PACKAGE_DEPENDS "nodejs (>= 18)")
set(CPACK_DEBIAN_BROWSER_PACKAGE_RECOMMENDS "chromium | chromium-headless-shell")
set(CPACK_DEBIAN_BROWSER_PACKAGE_ENHANCES "verdo-driver, verdo-driver-app")
set(CPACK_DEBIAN_BROWSER_PACKAGE_CONTROL_EXTRA ${debian}/browser/postrm)

set(CPACK_DEBIAN_APP_PACKAGE_NAME verdo-driver-app)
set(CPACK_DEBIAN_APP_DESCRIPTION "worker for the Verdo web service, in the tray
Fetches the jobs that the Verdo web service has queued for its user, runs them
in the user's logged-in browser or asks the user's LLM provider, and streams
back what comes of them. Sessions and keys stay on this computer.

This package has the tray app: an icon that shows the state, and a popover in
which the computer is connected to the website and the driver seen at work.")
set(CPACK_DEBIAN_APP_PACKAGE_RECOMMENDS
  "verdo-browser, ca-certificates, gnome-keyring | kwalletmanager | keepassxc")
set(CPACK_DEBIAN_APP_PACKAGE_SUGGESTS "qt6-wayland")
set(CPACK_DEBIAN_APP_PACKAGE_CONTROL_EXTRA ${debian}/app/postrm)

include(CPack)
