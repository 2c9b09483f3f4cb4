# What a client needs to find the installed libraries: a CMake package and a pkg-config file.

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

configure_file(${CMAKE_CURRENT_LIST_DIR}/qev_SharedMemory.pc.in
               ${PROJECT_BINARY_DIR}/qev_SharedMemory.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qev_SharedMemory.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
