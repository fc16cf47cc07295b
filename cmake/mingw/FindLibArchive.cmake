# Finds libarchive as a static library, with the libraries that it uses.
find_path(LibArchive_INCLUDE_DIR archive.h)
find_library(LibArchive_LIBRARY libarchive.a)
find_library(LibArchive_ZSTD_LIBRARY libzstd.a)
find_library(LibArchive_ZLIB_LIBRARY libz.a)
mark_as_advanced(LibArchive_INCLUDE_DIR LibArchive_LIBRARY LibArchive_ZSTD_LIBRARY
    LibArchive_ZLIB_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LibArchive
    REQUIRED_VARS LibArchive_LIBRARY LibArchive_ZSTD_LIBRARY LibArchive_ZLIB_LIBRARY
        LibArchive_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "run scripts/build-windows-libraries")

if(LibArchive_FOUND AND NOT TARGET LibArchive::LibArchive)
    add_library(LibArchive::LibArchive STATIC IMPORTED)
    set_target_properties(LibArchive::LibArchive PROPERTIES
        IMPORTED_LOCATION ${LibArchive_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${LibArchive_INCLUDE_DIR}
        INTERFACE_COMPILE_DEFINITIONS LIBARCHIVE_STATIC
        INTERFACE_LINK_LIBRARIES "${LibArchive_ZSTD_LIBRARY};${LibArchive_ZLIB_LIBRARY}")
endif()
