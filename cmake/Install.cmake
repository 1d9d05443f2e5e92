# Installs the libraries, their headers, the tools, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS fundix kitra kitrahttp dovra morphelTypes EXPORT morphelTypesTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS morphel-types morphel-server morphel-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY platform/fundix/include/ platform/kitra/include/ kodl/include/
        ${MORPHEL_GENERATED_DIR}/kitra/include/ ${MORPHEL_GENERATED_DIR}/dovra/include/
        ${MORPHEL_GENERATED_DIR}/morphel/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(EXPORT morphelTypesTargets NAMESPACE morphelTypes:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/morphelTypes)

configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/morphelTypesConfig.cmake.in
    ${CMAKE_BINARY_DIR}/morphelTypesConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/morphelTypes)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/morphelTypesConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/morphelTypesConfig.cmake ${CMAKE_BINARY_DIR}/morphelTypesConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/morphelTypes)

configure_file(${CMAKE_SOURCE_DIR}/cmake/morphelTypes.pc.in ${CMAKE_BINARY_DIR}/morphelTypes.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/morphelTypes.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
