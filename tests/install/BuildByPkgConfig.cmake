# Builds one source with the flags that pkg-config prints for vexalive, and runs it.
#
# Variables: COMPILER, FLAGS, PKG_CONFIG, PC_DIRECTORY (the folder of vexalive.pc), SOURCE, PROGRAM.

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  message("${output}")
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}\nended with ${result}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(ENV{PKG_CONFIG_PATH} ${PC_DIRECTORY})
run(${PKG_CONFIG} --cflags --libs vexalive)
separate_arguments(package_flags UNIX_COMMAND "${output}")
separate_arguments(FLAGS UNIX_COMMAND "${FLAGS}")
run(${COMPILER} -std=c++17 ${FLAGS} ${SOURCE} -o ${PROGRAM} ${package_flags})
run(${PROGRAM})
