# What a client needs to find the installed libraries: a CMake package and pkg-config files.

include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qev_SharedMemory)

install(
    EXPORT qev_SharedMemoryTargets
    NAMESPACE qev::
    DESTINATION ${package_dir})

configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/qev_SharedMemoryConfig.cmake.in
    ${PROJECT_BINARY_DIR}/qev_SharedMemoryConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qev_SharedMemoryConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qev_SharedMemoryConfig.cmake
              ${PROJECT_BINARY_DIR}/qev_SharedMemoryConfigVersion.cmake
        DESTINATION ${package_dir})

# The pkg-config files find the tree from their own place, so that it can be moved.
file(RELATIVE_PATH prefix_from_pkgconfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
foreach(package qev_FileDescriptor qev_MappedFile qev_SharedMemory qev_PipelineKit)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc
                   @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${package}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
