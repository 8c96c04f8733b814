# Holds the walls between the rooms of the Linux runtime:
# cmake -DRUNTIME_DIR=... -DPLATFORM_DIR=... -DROOMS=folder:room,room;... -P
#
# ROOMS is what each room may use besides itself, as its CMakeLists.txt declares it, which also holds
# that all arrows run downward. This finds the includes that reach further than that.

cmake_minimum_required(VERSION 3.25)

include(${CMAKE_CURRENT_LIST_DIR}/Walls.cmake)

foreach(room IN LISTS ROOMS)
    if(NOT room MATCHES "^([a-z_/]+):([a-z_/,]*)$")
        message(FATAL_ERROR "\"${room}\" is no folder:room,room")
    endif()
    string(REPLACE "," ";" MAY_USE_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
endforeach()
# The libraries that are one room's alone.
set(HOME_OF_gio bus/module)
set(HOME_OF_nlohmann control)
set(HOME_OF_sqlite3 preference)

find_sources(${RUNTIME_DIR})

function(layer_of file result)
    get_filename_component(folder ${file} DIRECTORY)
    set(${result} "${folder}" PARENT_SCOPE)
endfunction()
find_layers()
# What POSIX leaves to everybody is for every room.
file(GLOB common RELATIVE ${RUNTIME_DIR}/../../common ${RUNTIME_DIR}/../../common/*.h)
foreach(header IN LISTS common)
    set(LAYER_OF_${header} common)
endforeach()
set(LAYER_OF_Sqlite.h preference) # that part of what is everybody's is one room's
# What GLib leaves to everybody belongs to the rooms that bring it.
foreach(pair loop=loop bus=bus/module)
    string(REGEX REPLACE "=.*" "" folder ${pair})
    string(REGEX REPLACE ".*=" "" room ${pair})
    file(GLOB headers RELATIVE ${RUNTIME_DIR}/../../glib/${folder} ${RUNTIME_DIR}/../../glib/${folder}/*.h)
    foreach(header IN LISTS headers)
        set(LAYER_OF_${header} ${room})
    endforeach()
endforeach()

foreach(file IN LISTS sources)
    layer_of(${file} layer)
    if(NOT DEFINED MAY_USE_${layer})
        offend("lies in a folder that is no room")
        continue()
    endif()
    list(APPEND MAY_USE_${layer} common)
    file(STRINGS ${RUNTIME_DIR}/${file} includes REGEX "^[ \t]*#[ \t]*include")
    foreach(line IN LISTS includes)
        if(line MATCHES "\"([^\"]+)\"")
            check_own_header(${CMAKE_MATCH_1})
        elseif(line MATCHES "<platform/([^>]+)>")
            check_platform_header(${CMAKE_MATCH_1})
        elseif(line MATCHES "<([a-z0-9_]+)")
            if(DEFINED HOME_OF_${CMAKE_MATCH_1} AND NOT HOME_OF_${CMAKE_MATCH_1} STREQUAL layer)
                offend("includes ${line}: that library is ${HOME_OF_${CMAKE_MATCH_1}}'s alone")
            endif()
        else()
            offend("has an include that cannot be read: ${line}")
        endif()
    endforeach()
endforeach()

report_walls()
