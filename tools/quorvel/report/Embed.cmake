# Puts the report's page into the program: makes ReportPage.cpp, with the page as string literals.

# embed_as_literals(VARIABLE): turns a text into literals of at most 8,000 bytes, since compilers
# limit their length.
function(embed_as_literals variable)
    string(LENGTH "${${variable}}" length)
    set(literals "")
    foreach(at RANGE 0 ${length} 8000)
        string(SUBSTRING "${${variable}}" ${at} 8000 piece)
        string(APPEND literals "\n    R\"page(${piece})page\"")
    endforeach()
    set(${variable} "${literals}" PARENT_SCOPE)
endfunction()

set(folder ${CMAKE_CURRENT_SOURCE_DIR}/report)
set(parts report.html palette.css report.css report.js)
list(TRANSFORM parts PREPEND ${folder}/)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${parts})
file(READ ${folder}/report.html page)
file(READ ${folder}/palette.css palette)
file(READ ${folder}/report.css style)
file(READ ${folder}/report.js script)
foreach(part palette style script)
    string(REPLACE "@${part}@" "${${part}}" page "${page}")
endforeach()

string(FIND "${page}" "@data@" data)
string(SUBSTRING "${page}" 0 ${data} start)
math(EXPR data "${data} + 6")
string(SUBSTRING "${page}" ${data} -1 end)
foreach(part start end palette)
    embed_as_literals(${part})
endforeach()
configure_file(${folder}/ReportPage.cpp.in ${CMAKE_CURRENT_BINARY_DIR}/ReportPage.cpp @ONLY)
