# Precompiled headers: libraries whose headers take longer to parse than our sources. The sources include what they use
# all the same. -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON (preset `clang`) compiles without precompiled headers
# and finds a missing include.

set(standard_headers <algorithm> <chrono> <condition_variable> <cstdint> <cstdio> <cstdlib> <filesystem> <fstream>
  <functional> <future> <iterator> <limits> <map> <memory> <mutex> <optional> <random> <set> <sstream> <string>
  <string_view> <system_error> <thread> <utility> <vector>)

# add_precompiled_headers(NAME HEADER…): compiles the headers once, with the options of the current folder.
function(add_precompiled_headers name)
  if(CMAKE_DISABLE_PRECOMPILE_HEADERS)
    return()
  endif()
  file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp CONTENT "")
  add_library(${name} OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  target_precompile_headers(${name} PRIVATE ${standard_headers} ${ARGN})
endfunction()

# reuse_precompiled_headers(NAME TARGET…): the targets start from the headers of NAME. Their options must be the same.
function(reuse_precompiled_headers name)
  foreach(target IN LISTS ARGN)
    get_target_property(is_disabled ${target} DISABLE_PRECOMPILE_HEADERS)
    if(NOT is_disabled)
      target_precompile_headers(${target} REUSE_FROM ${name})
    endif()
  endforeach()
endfunction()
