# Installs the packages of the lock file into DIRECTORY/node_modules, unless they are there already.
# Usage: cmake -DSOURCES=BrowserExecutor -DDIRECTORY=… -P packages.cmake

set(stamp "${DIRECTORY}/installed")
file(SHA256 "${SOURCES}/package-lock.json" wanted)
if(EXISTS "${stamp}")
  file(READ "${stamp}" installed)
endif()
if(installed STREQUAL wanted)
  file(TOUCH "${stamp}")
  return()
endif()

find_program(npm npm NO_CACHE)
if(NOT npm)
  message(FATAL_ERROR "verdo-browser is built with npm, which is not here: run scripts/setup build")
endif()
file(REMOVE "${stamp}")
file(COPY "${SOURCES}/package.json" "${SOURCES}/package-lock.json" DESTINATION "${DIRECTORY}")
message(STATUS "npm installs the packages of verdo-browser")
execute_process(
  COMMAND "${npm}" ci --ignore-scripts --no-audit --no-fund --prefer-offline
  WORKING_DIRECTORY "${DIRECTORY}"
  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT status EQUAL 0)
  message(FATAL_ERROR
    "npm could not install the packages of verdo-browser:\n${output}\n"
    "They come from npm's registry over the network the first time, and from npm's cache later. "
    "Is there a network? A proxy is set with 'npm config set proxy URL', another registry with "
    "'npm config set registry URL'. Then build again.")
endif()
file(WRITE "${stamp}" "${wanted}")
