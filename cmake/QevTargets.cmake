# What all targets of this project have in common. Nothing here reaches users of the libraries.

# qev_settings(target): language level, warnings, sanitizers and visibility of one of our targets.
function(qev_settings target)
    target_compile_features(${target} PRIVATE cxx_std_17)
    set_target_properties(
        ${target}
        PROPERTIES CXX_EXTENSIONS OFF
                   CXX_VISIBILITY_PRESET hidden
                   VISIBILITY_INLINES_HIDDEN ON)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
    if(QEV_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    if(QEV_SANITIZERS)
        target_compile_options(${target} PRIVATE -fsanitize=${QEV_SANITIZERS}
                                                 -fno-omit-frame-pointer -fno-sanitize-recover=all)
        target_link_options(${target} PRIVATE -fsanitize=${QEV_SANITIZERS})
    endif()
    if(QEV_COVERAGE)
        target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
        target_link_options(${target} PRIVATE --coverage)
    endif()
endfunction()

# qev_quick_to_build(target): of a build with sanitizers, whose programs are not measured, what is
# slow to optimise is not optimised.
function(qev_quick_to_build target)
    if(QEV_SANITIZERS)
        target_compile_options(${target} PRIVATE -O0 -g1)
    endif()
endfunction()

# qev_fuzzed(target): a target whose code guides the fuzzers, in a build that has them.
function(qev_fuzzed target)
    if(QEV_FUZZING)
        target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    endif()
endfunction()

# qev_apart(sources...): sources that a unity build compiles by themselves, since what they keep in an
# unnamed namespace has the names of what others keep there.
function(qev_apart)
    set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# qev_library(name VERSION_SCRIPT file SOURCES ... HEADERS ...): the shared library
# libqev_<name>.so, exported as qev::<name>, and its static twin qev_<name>_static of the same
# objects, for tests of what the library keeps to itself. Both take what is linked to
# qev_<name>_objects.
function(qev_library name)
    cmake_parse_arguments(arg "" "VERSION_SCRIPT" "SOURCES;HEADERS" ${ARGN})
    set(objects qev_${name}_objects)
    add_library(${objects} OBJECT ${arg_SOURCES})
    qev_settings(${objects})
    qev_fuzzed(${objects})
    set_target_properties(${objects} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    if(NOT QEV_UNITY_LIBRARIES)  # tests bring sources of their own in place of some
        set_target_properties(${objects} PROPERTIES UNITY_BUILD OFF)
    endif()
    target_include_directories(${objects} PRIVATE include src)

    add_library(qev_${name} SHARED)
    add_library(qev::${name} ALIAS qev_${name})
    set_target_properties(
        qev_${name}
        PROPERTIES VERSION ${PROJECT_VERSION}
                   SOVERSION ${PROJECT_VERSION_MAJOR}
                   EXPORT_NAME ${name}
                   INSTALL_RPATH $ORIGIN  # our libraries stand side by side
                   LINKER_LANGUAGE CXX)
    if(arg_VERSION_SCRIPT)
        set(script ${CMAKE_CURRENT_SOURCE_DIR}/${arg_VERSION_SCRIPT})
        target_link_options(qev_${name} PRIVATE -Wl,--version-script=${script})
        set_target_properties(qev_${name} PROPERTIES LINK_DEPENDS ${script})
    endif()
    target_link_options(qev_${name} PRIVATE -Wl,--as-needed)
    if(NOT QEV_SANITIZERS)  # their run-time library comes with the executable only
        target_link_options(qev_${name} PRIVATE -Wl,--no-undefined)
    endif()

    add_library(qev_${name}_static STATIC)
    set_target_properties(qev_${name}_static PROPERTIES LINKER_LANGUAGE CXX)
    target_include_directories(qev_${name}_static
                               INTERFACE $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/src>)

    foreach(library qev_${name} qev_${name}_static)
        qev_settings(${library})
        target_sources(${library} PRIVATE $<TARGET_OBJECTS:${objects}>)
        target_compile_features(${library} INTERFACE cxx_std_17)
        target_include_directories(
            ${library} INTERFACE $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
                                 $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/qev>)
    endforeach()
    list(TRANSFORM arg_HEADERS PREPEND include/)
    install(FILES ${arg_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qev)
    install(
        TARGETS qev_${name}
        EXPORT qev_SharedMemoryTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()
