# quorvel_format: the package file and the effect cache's contents, read, checked and written
# without the library. For the format's tests and for the tools, whichever comes first.
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
