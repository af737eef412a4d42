# Writes the console's files as the entries of the table in Console.cpp. At configure time, so that the sources can be
# read by tools that build nothing; a change of a file configures anew.
set(entries "")
foreach(file_and_type IN ITEMS
    "index.html text/html" "console.css text/css" "console.js text/javascript" "json.js text/javascript"
    "icon.svg image/svg+xml")
  string(REPLACE " " ";" parts ${file_and_type})
  list(GET parts 0 name)
  list(GET parts 1 type)
  set(source ${CMAKE_CURRENT_LIST_DIR}/${name})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} content)
  string(REPLACE "index.html" "" path "/${name}")
  string(APPEND entries "{\"${path}\"sv, {\"${type}; charset=utf-8\", R\"console(${content})console\"sv}},\n")
endforeach()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.inc.new "${entries}")
file(COPY_FILE ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.inc.new ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.inc
     ONLY_IF_DIFFERENT)
target_include_directories(vexalive_service PRIVATE ${CMAKE_CURRENT_BINARY_DIR})
