# Runs an example in a fresh folder and prints what it writes to standard output, its log file and how it ended.
#
#   cmake -D PROGRAM=<words of the command> -D LOG=<file> -D FOLDER=<folder> [-D TWEAKS=<text>] -P run_example.cmake
file(REMOVE_RECURSE ${FOLDER})
file(MAKE_DIRECTORY ${FOLDER})
if(TWEAKS)
  file(WRITE ${FOLDER}/tweaks_extension.txt "${TWEAKS}\n")
endif()
execute_process(COMMAND ${PROGRAM} WORKING_DIRECTORY ${FOLDER} RESULT_VARIABLE result OUTPUT_VARIABLE output)
file(READ ${FOLDER}/${LOG} log)
message("${output}log:\n${log}result: ${result}")
