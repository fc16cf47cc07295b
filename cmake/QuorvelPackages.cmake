# What scripts/pack packs: .deb packages and an archive on Linux, an archive for each ABI on Windows.
# Documents differ between packages: packaging/stage.cmake adds them.
set(CPACK_PACKAGE_VENDOR Quorvel)
set(CPACK_PACKAGE_CONTACT "Quorvel maintainers <maintainers@quorvel.invalid>" CACHE STRING
    "The maintainer of the packages")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/stage.cmake)
set(CPACK_QUORVEL_TREE ${PROJECT_SOURCE_DIR})

set(CPACK_COMPONENTS_ALL library development tools)

if(MINGW)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_QUORVEL_PLATFORM win64-mingw)
elseif(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_QUORVEL_PLATFORM win64-msvc)
else()
    set(CPACK_GENERATOR TGZ)
    set(CPACK_QUORVEL_PLATFORM linux-${CMAKE_SYSTEM_PROCESSOR})
endif()
set(CPACK_PACKAGE_FILE_NAME quorvel-${PROJECT_VERSION}-${CPACK_QUORVEL_PLATFORM})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libquorvel${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each description begins with its own
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "shared cache of compiled shader effects - libraries
Quorvel lets an application compile each shader effect only once. All processes
of a user that open a cache directory share one file, and a process that is
killed leaves it as it was after the last save. A paged package below the cache
keeps many byte streams in one file.
.
This package contains the libraries for C++ and for C.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquorvel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "shared cache of compiled shader effects - development files
Quorvel lets an application compile each shader effect only once.
.
This package contains what programs in C++ and C are built with: headers, and
files for CMake and pkg-config.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME quorvel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "shared cache of compiled shader effects - command line program
The program quorvel works on caches of compiled shader effects, also while
applications use them: it lists, checks, prunes, compacts, exports, merges and
compares them, and saves what is left of a damaged one.")

include(CPack)
