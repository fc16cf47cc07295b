# CPack runs this after it has staged the files of a package and before it packs them. Adds to each
# package its README, the licences of all code in it, and the changelog.

# The Debian packages whose code each part contains; each names its licences in a file "copyright".
set(tools_code libcli11-dev libfmt-dev nlohmann-json3-dev libxxhash-dev)
set(windows_tools_code ${tools_code}
    libarchive-dev libzstd1 libz-mingw-w64-dev gcc-mingw-w64-base mingw-w64-common)
set(win64-msvc_code ${windows_tools_code} libc++-19-dev libwine-dev)
set(win64-mingw_code ${windows_tools_code})
set(linux-x86_64_code ${tools_code})

set(tree ${CPACK_QUORVEL_TREE})
set(version ${CPACK_PACKAGE_VERSION})

# readme(NAME FOLDER): packaging/NAME.md.in with the version filled in.
function(readme name folder)
    configure_file(${tree}/packaging/${name}.md.in ${folder}/README.md @ONLY)
endfunction()

# debian_documents(COMPONENT PACKAGE [CODE...]): /usr/share/doc/PACKAGE, as Debian wants it.
function(debian_documents component package)
    set(folder ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc/${package})
    readme(${package} ${folder})
    file(READ ${tree}/LICENCE.txt copyright)
    foreach(code IN LISTS ARGN)
        file(READ /usr/share/doc/${code}/copyright text)
        string(APPEND copyright "\n---- ${code} ----\n\n${text}")
    endforeach()
    file(WRITE ${folder}/copyright "${copyright}")
    configure_file(${tree}/CHANGELOG.md ${folder}/changelog COPYONLY)
    string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
    configure_file(${tree}/packaging/changelog.Debian.in ${folder}/changelog.Debian @ONLY)
    file(GLOB manual ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/man/man1/*.1)
    execute_process(COMMAND gzip -9nf ${folder}/changelog ${folder}/changelog.Debian ${manual}
                    COMMAND_ERROR_IS_FATAL ANY)
endfunction()

if(CPACK_GENERATOR STREQUAL DEB)
    debian_documents(library ${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME})
    debian_documents(development ${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME})
    file(RENAME ${CPACK_TEMPORARY_DIRECTORY}/tools/usr/share/zsh/site-functions
        ${CPACK_TEMPORARY_DIRECTORY}/tools/usr/share/zsh/vendor-completions)
    debian_documents(tools ${CPACK_DEBIAN_TOOLS_PACKAGE_NAME} ${tools_code})
else()
    set(folder ${CPACK_TEMPORARY_DIRECTORY})
    readme(${CPACK_QUORVEL_PLATFORM} ${folder})
    file(COPY ${tree}/LICENCE.txt ${tree}/CHANGELOG.md DESTINATION ${folder})
    foreach(code IN LISTS ${CPACK_QUORVEL_PLATFORM}_code)
        configure_file(/usr/share/doc/${code}/copyright ${folder}/licences/${code}.txt COPYONLY)
    endforeach()
endif()
