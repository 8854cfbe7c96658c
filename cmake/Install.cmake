# What `cmake --install` puts in place: the library, its headers, the program with its manual page and
# completion scripts, the documents, and what lets CMake and pkg-config find the library. All of it may
# be moved as a whole afterwards. `--component debug` installs the debug information.

include(CMakePackageConfigHelpers)
include(${CMAKE_CURRENT_LIST_DIR}/PublicHeaders.cmake)

list(TRANSFORM QUENDO_PUBLIC_HEADERS PREPEND "${PROJECT_SOURCE_DIR}/")
target_sources(quendo PUBLIC
    FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${QUENDO_PUBLIC_HEADERS})

install(TARGETS quendo EXPORT quendoTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(packageFolder ${CMAKE_INSTALL_LIBDIR}/cmake/quendo)
install(EXPORT quendoTargets NAMESPACE quendo:: DESTINATION ${packageFolder})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/quendoConfig.cmake.in
    ${PROJECT_BINARY_DIR}/quendoConfig.cmake
    INSTALL_DESTINATION ${packageFolder}
    NO_SET_AND_CHECK_MACRO)
# Before version 1 a new minor version may change what exists.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quendoConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/quendoConfig.cmake
    ${PROJECT_BINARY_DIR}/quendoConfigVersion.cmake
    DESTINATION ${packageFolder})

file(RELATIVE_PATH prefixFromPkgConfig
    /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/quendo.pc.in ${PROJECT_BINARY_DIR}/quendo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quendo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# quendo_install_debug(TARGET FOLDER): installs the output of quendo_split_debug() where debuggers look.
function(quendo_install_debug target folder)
    install(FILES $<TARGET_FILE:${target}>.debug DESTINATION ${folder}/.debug
        COMPONENT debug EXCLUDE_FROM_ALL OPTIONAL)
endfunction()
quendo_install_debug(quendo ${CMAKE_INSTALL_LIBDIR})

install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
    DESTINATION ${CMAKE_INSTALL_DOCDIR})

if(QUENDO_HOST)
    file(RELATIVE_PATH libraryFromProgram
        /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(quendo-program PROPERTIES
        INSTALL_RPATH "$ORIGIN/${libraryFromProgram}")
    install(TARGETS quendo-program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    quendo_install_debug(quendo-program ${CMAKE_INSTALL_BINDIR})
    install(FILES ${PROJECT_SOURCE_DIR}/host/quendo.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    if(TARGET quendo-completions)
        set(completions ${PROJECT_BINARY_DIR}/host/completions)
        install(FILES ${completions}/bash RENAME quendo
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
        install(FILES ${completions}/zsh RENAME _quendo
            DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
        install(FILES ${completions}/fish RENAME quendo.fish
            DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
    endif()
endif()
