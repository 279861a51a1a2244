# Fails when a source of folder DIR includes a header of a folder it may not depend on.
# Called as: cmake -DDIR=<folder> -DALLOWED="<folder>;<folder>" -DSTAMP=<file> -P check_layers.cmake
# Includes of the project are written "folder/file.h" relative to src/ (or the project root for
# sim/ and tests' own helpers); anything else (system headers, same-folder quotes) is ignored.
file(GLOB_RECURSE sources ${DIR}/*.h ${DIR}/*.cpp ${DIR}/*.c)
set(known platform support proxy core objects lun host module sim)
set(bad "")
foreach(src ${sources})
  file(STRINGS ${src} lines REGEX "^[ \t]*#[ \t]*include[ \t]+\"[a-z_]+/")
  foreach(line ${lines})
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]+\"([a-z_]+)/.*" "\\1" folder "${line}")
    list(FIND known ${folder} isKnown)
    list(FIND ALLOWED ${folder} isAllowed)
    if(NOT isKnown EQUAL -1 AND isAllowed EQUAL -1)
      string(APPEND bad "  ${src}: ${line}\n")
    endif()
  endforeach()
endforeach()
if(bad)
  message(FATAL_ERROR "Layering: these includes reach a folder the target may not depend on "
                      "(allowed: ${ALLOWED}):\n${bad}")
endif()
file(WRITE ${STAMP} "ok\n")
