# Settings for the project's own targets: quendo_settings carries what every one of them needs.
# Nothing here reaches a project that uses the library.

add_library(quendo_settings INTERFACE)
target_compile_features(quendo_settings INTERFACE cxx_std_20)
target_compile_options(quendo_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual
    -Werror=return-type
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
if(QUENDO_SANITIZE)
    target_compile_options(quendo_settings INTERFACE
        -fsanitize=${QUENDO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(quendo_settings INTERFACE -fsanitize=${QUENDO_SANITIZE})
endif()

if(PROJECT_IS_TOP_LEVEL)
    find_program(QUENDO_CCACHE ccache)
    if(QUENDO_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
        # What ccache has to overlook, and GCC to leave in what it preprocesses, for what is compiled
        # with a precompiled header to be known again.
        set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
            CCACHE_SLOPPINESS=pch_defines,time_macros "${QUENDO_CCACHE}")
        if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
            target_compile_options(quendo_settings INTERFACE -fpch-preprocess)
        endif()
    endif()
endif()
