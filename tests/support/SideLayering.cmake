# Holds the walls around common/, glib/, the phone's side and the view into the service:
# cmake -DROOT=... -P
#
# The phone's side and the service share the wire format's document and nothing else; so each folder
# names here whose headers it may use, and which headers of the system beside the standard library's.

cmake_minimum_required(VERSION 3.25)

include(${CMAKE_CURRENT_LIST_DIR}/Walls.cmake)

set(FOLDERS common common/usage glib/loop glib/bus glib/web host/wire host/ledger host/session host/link host/web host/export host/command host/capi host/capi/parvane watch watch/check_config watch/monitor watch/play)
set(SEES_common "")
set(SEES_common/usage common)
set(SEES_glib/loop common)
set(SEES_glib/bus glib/loop common)
set(SEES_glib/web glib/loop common)
set(SEES_host/wire "")
set(SEES_host/ledger host/wire)
set(SEES_host/session host/ledger host/wire)
set(SEES_host/link host/session host/ledger host/wire common)
set(SEES_host/web host/link host/session host/ledger host/wire glib/web glib/loop common)
set(SEES_host/export host/ledger host/wire common)
set(SEES_host/command host/export host/web host/link host/session host/ledger host/wire common/usage common)
set(SEES_host/capi/parvane "")
set(SEES_host/capi host/link host/session host/ledger host/wire common)
set(SEES_watch watch/check_config watch/monitor watch/play common/usage common)
set(SEES_watch/monitor watch common)
set(SEES_watch/play watch common)
# Checks a configuration as the runtime does.
set(SEES_watch/check_config platform/linux/config platform/linux/recording platform/linux/base common)

set(POSIX dirent.h clocale fcntl.h langinfo.h netinet/in.h netinet/tcp.h poll.h signal.h sys/epoll.h sys/eventfd.h sys/file.h sys/ioctl.h sys/mman.h sys/random.h sys/signalfd.h sys/socket.h sys/stat.h sys/time.h sys/types.h sys/uio.h
    sys/un.h termios.h unistd.h)
# No I/O: what is in here is told what happens, and when.
set(PURE host/wire host/ledger host/session)
set(LIBRARIES_common "")
set(LIBRARIES_common/usage CLI)
set(LIBRARIES_glib/loop glib.h glib-object.h)
set(LIBRARIES_glib/bus gio)
set(LIBRARIES_glib/web glib.h gio)
set(LIBRARIES_host/wire "")
set(LIBRARIES_host/ledger "")
set(LIBRARIES_host/session "")
set(LIBRARIES_host/link "")
set(LIBRARIES_host/web glib.h gio)
set(LIBRARIES_host/export "")
set(LIBRARIES_host/capi parvane)
set(LIBRARIES_host/capi/parvane "")
set(LIBRARIES_host/command CLI nlohmann)
set(LIBRARIES_watch CLI nlohmann)
set(LIBRARIES_watch/check_config nlohmann)
set(LIBRARIES_watch/play nlohmann)
# The headers of ncurses, which have no folder.
set(LIBRARIES_watch/monitor nlohmann curses.h)

set(count 0)
foreach(folder IN LISTS FOLDERS)
    file(GLOB sources RELATIVE ${ROOT} ${ROOT}/${folder}/*.h ${ROOT}/${folder}/*.cpp)
    if(NOT sources)
        message(FATAL_ERROR "nothing in ${ROOT}/${folder}: this is not the right folder")
    endif()
    foreach(file IN LISTS sources)
        math(EXPR count "${count} + 1")
        # Sources are compiled with and without _FILE_OFFSET_BITS: on 32 bits a class that has such a field
        # is not the same class in both.
        file(STRINGS ${ROOT}/${file} sized REGEX "(^|[^A-Za-z_])(off_t|ino_t|struct (stat|dirent)) +m[A-Z]")
        if(sized)
            offend("has a field whose size depends on how it is compiled: ${sized}")
        endif()
        file(STRINGS ${ROOT}/${file} includes REGEX "^[ \t]*#[ \t]*include")
        foreach(line IN LISTS includes)
            if(line MATCHES "\"([^\"/]+)\"")
                set(header ${CMAKE_MATCH_1})
                set(found FALSE)
                foreach(home IN LISTS folder SEES_${folder})
                    if(EXISTS ${ROOT}/${home}/${header})
                        set(found TRUE)
                    endif()
                endforeach()
                if(NOT found)
                    offend("includes \"${header}\", which is none of ${folder};${SEES_${folder}}")
                endif()
            elseif(line MATCHES "<(([A-Za-z]+)/[^>]+|[^>]+)>")
                if(NOT CMAKE_MATCH_1 IN_LIST STANDARD
                        AND (folder IN_LIST PURE OR NOT CMAKE_MATCH_1 IN_LIST POSIX)
                        AND NOT CMAKE_MATCH_1 IN_LIST LIBRARIES_${folder}
                        AND NOT CMAKE_MATCH_2 IN_LIST LIBRARIES_${folder})
                    offend("includes <${CMAKE_MATCH_1}>, which ${folder} may not use")
                endif()
            else()
                offend("has an include that cannot be read: ${line}")
            endif()
        endforeach()
    endforeach()
endforeach()

file(GLOB_RECURSE all ${ROOT}/common/*.h ${ROOT}/common/*.cpp ${ROOT}/glib/*.h ${ROOT}/glib/*.cpp ${ROOT}/host/*.h ${ROOT}/host/*.cpp
    ${ROOT}/watch/*.h ${ROOT}/watch/*.cpp)
list(LENGTH all expected)
if(NOT count EQUAL expected)
    message(FATAL_ERROR "${expected} files, but ${count} in the folders that are known here")
endif()
report_walls()
