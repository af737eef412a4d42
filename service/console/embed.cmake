# Writes the console's files as the entries of the table in Console.cpp. It runs at configure time, so that tools that
# read the sources need no build. A changed, new or deleted file of the console triggers a new configuration.
set(type_html text/html)
set(type_css text/css)
set(type_js text/javascript)
set(type_svg image/svg+xml)
set(entries "")
file(GLOB sources CONFIGURE_DEPENDS
  ${CMAKE_CURRENT_LIST_DIR}/*.html ${CMAKE_CURRENT_LIST_DIR}/*.css
  ${CMAKE_CURRENT_LIST_DIR}/*.js ${CMAKE_CURRENT_LIST_DIR}/*.svg)
foreach(source IN LISTS sources)
  cmake_path(GET source FILENAME name)
  cmake_path(GET source EXTENSION LAST_ONLY extension)
  string(SUBSTRING ${extension} 1 -1 extension)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} content)
  string(REPLACE "index.html" "" path "/${name}")
  set(type "${type_${extension}}; charset=utf-8")
  string(APPEND entries "{\"${path}\"sv, {\"${type}\", R\"console(${content})console\"sv}},\n")
endforeach()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.inc.new "${entries}")
file(COPY_FILE ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.inc.new ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.inc
     ONLY_IF_DIFFERENT)
target_include_directories(vexalive_service PRIVATE ${CMAKE_CURRENT_BINARY_DIR})
