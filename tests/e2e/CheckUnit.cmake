# Checks the unit as systemd reads it: nothing to complain of, and an exposure of at most 1.5.
#
# -DANALYZE=systemd-analyze -DUNIT=parvane.service.in -DPROGRAM=parvane -DFOLDER=to write to
# [-DDROP_INS=files with commas between them] [-DMORE=a line to add to the unit]

if(NOT ANALYZE)
    message("SKIPPED: this machine has no systemd-analyze")
    return()
endif()

file(REMOVE_RECURSE ${FOLDER})
file(READ ${UNIT} text)
get_filename_component(name ${UNIT} NAME_WLE)
get_filename_component(CMAKE_INSTALL_FULL_BINDIR ${PROGRAM} DIRECTORY)
string(CONFIGURE "${text}" text @ONLY)
file(WRITE ${FOLDER}/${name} "${text}${MORE}\n")
string(REPLACE "," ";" drop_ins "${DROP_INS}")
foreach(drop_in IN LISTS drop_ins)
    file(COPY ${drop_in} DESTINATION ${FOLDER}/${name}.d)
endforeach()

# It succeeds in spite of unknown keys and values; it only says so.
execute_process(COMMAND ${ANALYZE} verify --man=no ${FOLDER}/${name}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE error)
if(NOT result EQUAL 0 OR NOT "${output}${error}" STREQUAL "")
    message(FATAL_ERROR "systemd-analyze verify: ${result}\n${output}${error}")
endif()

# The threshold is ten times the exposure.
execute_process(COMMAND ${ANALYZE} security --no-pager --offline=yes --threshold=15 ${FOLDER}/${name}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE error)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "systemd-analyze security: ${result}\n${output}${error}")
endif()
string(REGEX MATCH "Overall exposure level[^\n]*" summary "${output}")
if(NOT summary)
    message(FATAL_ERROR "systemd-analyze security says no exposure:\n${output}${error}")
endif()
message("${summary}")
