# quorvel_platform_stubs(PROGRAM): puts PlatformStubs.cpp, which the program must have among its
# sources, in front of the platform's services, by the names that the linker knows them by. Only the
# type of a 64-bit number differs.
include_guard(GLOBAL)

function(quorvel_platform_stubs program)
    if(QUORVEL_PLATFORM STREQUAL win32)
        set(free_disk_space _ZN7Quorvel8Platform16GetFreeDiskSpaceEPKcRy)
    else()
        set(free_disk_space _ZN7Quorvel8Platform16GetFreeDiskSpaceEPKcRm)
    endif()
    set(current_local_time _ZN7Quorvel8Platform16CurrentLocalTimeEv)
    set(open_named_mutex _ZN7Quorvel8Platform14OpenNamedMutexEPKc)
    foreach(function free_disk_space current_local_time open_named_mutex)
        string(TOUPPER ${function} macro)
        target_link_options(${program} PRIVATE -Wl,--wrap=${${function}})
        target_compile_definitions(${program} PRIVATE
            WRAP_${macro}=__wrap_${${function}} REAL_${macro}=__real_${${function}})
    endforeach()
endfunction()
