# Installs the libraries, what clients need to build with them (headers, find_package(Quorvel),
# pkg-config files), and the documents. The components: library, development, symbols, documents, and
# tools, which tools/ installs.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(targets quorvel quorvel_c)
if(NOT QUORVEL_HOST_LIBRARIES)
    list(APPEND targets vornutil)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/vornutil/include/
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
endif()

install(TARGETS ${targets} EXPORT QuorvelTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT library NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(CMAKE_CXX_LINKER_SUPPORTS_PDB AND BUILD_SHARED_LIBS)
    install(FILES $<TARGET_PDB_FILE:quorvel> $<TARGET_PDB_FILE:quorvel_c>
            DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT symbols OPTIONAL)
endif()
if(MINGW AND BUILD_SHARED_LIBS)
    install(FILES ${QUORVEL_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT library)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/quorvel ${PROJECT_BINARY_DIR}/include/quorvel
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN *.h)
install(FILES ${PROJECT_SOURCE_DIR}/capi/quorvel.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Quorvel)
install(EXPORT QuorvelTargets NAMESPACE Quorvel:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QuorvelConfig.cmake.in
    ${PROJECT_BINARY_DIR}/QuorvelConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuorvelConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
        ${PROJECT_BINARY_DIR}/QuorvelConfig.cmake ${PROJECT_BINARY_DIR}/QuorvelConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT development)

# The pkg-config files find the headers and libraries from where they are themselves. A C program
# that links the static libraries needs the C++ runtime; a client in C++ has it anyway.
if(NOT MSVC AND NOT QUORVEL_MSVC_ABI_RUNTIME)
    set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    file(RELATIVE_PATH prefix_from_pkgconfig /root/${pkgconfig_dir} /root)
    cmake_path(GET prefix_from_pkgconfig PARENT_PATH prefix_from_pkgconfig)
    get_target_property(c_library quorvel_c OUTPUT_NAME)
    if(NOT c_library)
        set(c_library quorvel_c)
    endif()
    if(BUILD_SHARED_LIBS)
        set(requires_cxx_library Requires.private)
    else()
        set(requires_cxx_library Requires)
        set(static_definition " -DQUORVEL_STATIC")
        set(cxx_runtime " -lstdc++")
    endif()
    foreach(file quorvel quorvel-c)
        configure_file(${CMAKE_CURRENT_LIST_DIR}/${file}.pc.in ${PROJECT_BINARY_DIR}/${file}.pc @ONLY)
        install(FILES ${PROJECT_BINARY_DIR}/${file}.pc
                DESTINATION ${pkgconfig_dir} COMPONENT development)
    endforeach()
endif()

install(FILES ${PROJECT_SOURCE_DIR}/LICENCE.txt ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
