# quorvel_format: reads, checks and writes package files and effect caches without the library. Every
# folder that uses it includes this file; the first one defines it.
include_guard(GLOBAL)

set(folder ${CMAKE_CURRENT_LIST_DIR})
add_library(quorvel_format STATIC
    ${folder}/Bytes.cpp
    ${folder}/EffectCacheImage.cpp
    ${folder}/EffectCacheWriter.cpp
    ${folder}/PackageCheck.cpp
    ${folder}/PackageImage.cpp
    ${folder}/PackageWriter.cpp)
target_include_directories(quorvel_format PUBLIC ${folder}/..)
target_link_libraries(quorvel_format PRIVATE quorvel_build_settings)
target_compile_features(quorvel_format PUBLIC cxx_std_20)
