# Holds the walls between the folders of the service: cmake -DSERVICE_DIR=... -DPLATFORM_DIR=... -P
#
# Each folder is a target that sees only the headers that it may use; this finds what the include
# paths cannot: a way around them, a header of the system that is no part of the standard library,
# a function that is declared by hand.

cmake_minimum_required(VERSION 3.25)

include(${CMAKE_CURRENT_LIST_DIR}/Walls.cmake)

# What each layer may include from the service, besides itself; "base" are the headers beside the
# folders.
set(MAY_USE_data "")
set(MAY_USE_base "")
set(MAY_USE_sensors data base)
set(MAY_USE_hostComm data base)
set(MAY_USE_controls data sensors hostComm base)
set(MAY_USE_main controls base)
# The main loop's library, and the functions that the service has of it.
set(MAY_USE_GLIB hostComm controls)
set(GLIB_FUNCTIONS g_timeout_add g_free g_try_malloc g_try_malloc0)
set(MAY_USE_PLATFORM base sensors hostComm controls main)

find_sources(${SERVICE_DIR})

# The layer that a file of the service belongs to.
function(layer_of file result)
    get_filename_component(folder ${file} DIRECTORY)
    if(folder)
        set(${result} ${folder} PARENT_SCOPE)
    elseif(file MATCHES "\\.cpp$")
        set(${result} main PARENT_SCOPE)
    else()
        set(${result} base PARENT_SCOPE)
    endif()
endfunction()

find_layers()

foreach(file IN LISTS sources)
    layer_of(${file} layer)
    if(NOT DEFINED MAY_USE_${layer})
        offend("lies in a folder that is no layer")
        continue()
    endif()
    file(STRINGS ${SERVICE_DIR}/${file} includes REGEX "^[ \t]*#[ \t]*include")
    foreach(line IN LISTS includes)
        if(line MATCHES "\"([^\"]+)\"")
            check_own_header(${CMAKE_MATCH_1})
        elseif(line MATCHES "<platform/([^>]+)>")
            if(NOT layer IN_LIST MAY_USE_PLATFORM)
                offend("includes <platform/${CMAKE_MATCH_1}>: ${layer} may not use the platform")
            endif()
            check_platform_header(${CMAKE_MATCH_1})
        elseif(line MATCHES "<glib\\.h>")
            if(NOT layer IN_LIST MAY_USE_GLIB)
                offend("includes <glib.h>: ${layer} may not use GLib")
            endif()
        elseif(line MATCHES "<([^>]+)>")
            if(NOT CMAKE_MATCH_1 IN_LIST STANDARD)
                offend("includes <${CMAKE_MATCH_1}>, which is not of the standard library")
            endif()
        else()
            offend("has an include that cannot be read: ${line}")
        endif()
    endforeach()

    file(STRINGS ${SERVICE_DIR}/${file} by_hand REGEX "extern[ \t]+\"C\"|dlopen|dlsym|__has_include|__asm__")
    foreach(line IN LISTS by_hand)
        offend("declares or looks up a function by hand: ${line}")
    endforeach()
    file(STRINGS ${SERVICE_DIR}/${file} glib_calls REGEX "[^A-Za-z0-9_]g_[a-z0-9_]+")
    foreach(line IN LISTS glib_calls)
        string(REGEX MATCHALL "[^A-Za-z0-9_]g_[a-z0-9_]+" calls "${line}")
        foreach(call IN LISTS calls)
            string(SUBSTRING "${call}" 1 -1 call)
            if(NOT call IN_LIST GLIB_FUNCTIONS)
                offend("uses ${call}(), which is not among ${GLIB_FUNCTIONS}")
            endif()
        endforeach()
    endforeach()
endforeach()

report_walls()
