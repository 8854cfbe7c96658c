# quendo_split_debug(TARGET): moves the target's debug information and its local symbols into a file
# FILE.debug beside it. Debuggers, addr2line and perf follow the link left in FILE; they look beside
# FILE and in the folder .debug there.
function(quendo_split_debug target)
    if(NOT QUENDO_SPLIT_DEBUG OR QUENDO_SANITIZE OR NOT CMAKE_OBJCOPY)
        return()
    endif()
    add_custom_command(TARGET ${target} POST_BUILD VERBATIM
        COMMAND ${CMAKE_OBJCOPY} --only-keep-debug
            $<TARGET_FILE:${target}> $<TARGET_FILE:${target}>.debug
        COMMAND ${CMAKE_OBJCOPY} --strip-unneeded
            --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug $<TARGET_FILE:${target}>)
endfunction()
