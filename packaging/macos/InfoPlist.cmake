# Writes the bundle's Info.plist, with the version and the server that this build is for.
set(DRIVER_VERSION_TEXT ${PROJECT_VERSION})
set(DEFAULT_SERVER_URL_XML "${VERDO_DEFAULT_SERVER_URL}")
string(REPLACE "&" "&amp;" DEFAULT_SERVER_URL_XML "${DEFAULT_SERVER_URL_XML}")
string(REPLACE "<" "&lt;" DEFAULT_SERVER_URL_XML "${DEFAULT_SERVER_URL_XML}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/Info.plist.in ${VERDO_GENERATED_DIR}/Info.plist @ONLY)
