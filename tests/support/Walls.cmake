# What the checks of walls between folders share. They set MAY_USE_<layer> for each layer, have a
# function layer_of(file result), and call find_sources() and find_layers() before anything is checked
# and report_walls() at the end.

set(STANDARD
    algorithm any array atomic barrier bit bitset cassert cctype cerrno charconv chrono climits cmath
    compare concepts condition_variable coroutine csignal cstdarg cstddef cstdint cstdio cstdlib
    cstring ctime deque exception filesystem forward_list fstream functional future
    initializer_list iomanip ios iosfwd iostream istream iterator latch limits list locale map memory
    memory_resource mutex new numbers numeric optional ostream queue random ranges ratio regex
    scoped_allocator semaphore set shared_mutex source_location span sstream stack stdexcept
    stop_token streambuf string string_view system_error thread tuple type_traits typeindex typeinfo
    unordered_map unordered_set utility valarray variant vector version)

# Sets `sources`, the files of the folder, and `count`.
macro(find_sources folder)
    if(NOT IS_DIRECTORY "${folder}" OR NOT IS_DIRECTORY "${PLATFORM_DIR}")
        message(FATAL_ERROR "\"${folder}\" and PLATFORM_DIR \"${PLATFORM_DIR}\" have to be folders")
    endif()
    file(GLOB_RECURSE sources RELATIVE ${folder} ${folder}/*.h ${folder}/*.cpp)
    list(LENGTH sources count)
    if(count LESS 50)
        message(FATAL_ERROR "only ${count} files under ${folder}: this is not the right one")
    endif()
endmacro()

# Sets LAYER_OF_<header> for each header among the sources.
macro(find_layers)
    foreach(file IN LISTS sources)
        get_filename_component(name ${file} NAME)
        layer_of(${file} layer)
        if(name MATCHES "\\.h$")
            set(LAYER_OF_${name} ${layer})
        endif()
    endforeach()
endmacro()

set(offenders "")
macro(offend text)
    string(APPEND offenders "  ${file}: ${text}\n")
endmacro()

# Of the file `file` in the layer `layer`: an include of the project's own.
function(check_own_header header)
    if(header MATCHES "\\.\\.|/")
        offend("includes \"${header}\": headers have no path")
    elseif(NOT DEFINED LAYER_OF_${header})
        offend("includes \"${header}\", which is no header of these folders")
    elseif(NOT LAYER_OF_${header} STREQUAL layer
            AND NOT LAYER_OF_${header} IN_LIST MAY_USE_${layer})
        offend("includes \"${header}\": ${layer} may not use ${LAYER_OF_${header}}")
    endif()
    set(offenders "${offenders}" PARENT_SCOPE)
endfunction()

# The same: an include of the platform's interface.
function(check_platform_header header)
    if(NOT EXISTS ${PLATFORM_DIR}/${header})
        offend("includes <platform/${header}>, which is not in the platform's interface")
    endif()
    set(offenders "${offenders}" PARENT_SCOPE)
endfunction()

function(report_walls)
    if(offenders)
        message(FATAL_ERROR "the walls between the folders have holes:\n${offenders}")
    endif()
    message(STATUS "${count} files keep to their layers")
endfunction()
