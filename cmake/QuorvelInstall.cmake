# Installs the libraries, their headers and a package configuration for find_package(Quorvel).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(targets quorvel quorvel_c)
set(QUORVEL_INSTALLED_HOST ${QUORVEL_HOST_LIBRARIES})
if(NOT QUORVEL_HOST_LIBRARIES)
    list(APPEND targets vornutil corvaneutility)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/vornutil/include/
                      ${PROJECT_SOURCE_DIR}/host/corvaneutility/include/
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()

install(TARGETS ${targets} EXPORT QuorvelTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(CMAKE_CXX_LINKER_SUPPORTS_PDB)
    install(FILES $<TARGET_PDB_FILE:quorvel> $<TARGET_PDB_FILE:quorvel_c>
            DESTINATION ${CMAKE_INSTALL_BINDIR} OPTIONAL)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/quorvel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/capi/quorvel.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Quorvel)
install(EXPORT QuorvelTargets NAMESPACE Quorvel:: DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QuorvelConfig.cmake.in
    ${CMAKE_BINARY_DIR}/QuorvelConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QuorvelConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QuorvelConfig.cmake ${CMAKE_BINARY_DIR}/QuorvelConfigVersion.cmake
        DESTINATION ${package_dir})

# For scripts/pack: adds the README and the licence to the installed files.
if(WIN32 AND PROJECT_IS_TOP_LEVEL)
    install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/LICENCE.txt DESTINATION .)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_PACKAGE_VENDOR Quorvel)
    set(CPACK_PACKAGE_FILE_NAME quorvel-${PROJECT_VERSION}-win64-msvc)
    include(CPack)
endif()
