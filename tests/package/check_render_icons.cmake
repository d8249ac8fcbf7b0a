# The icon renderer stops the build, with a reason, on a picture it cannot
# read, one that comes out empty and a size that is no icon size, and writes
# nothing then. (The renderings of the real icons are checked by
# check_install.cmake.)
# cmake -DRENDERER=... -DWORK=... -P check_render_icons.cmake
cmake_minimum_required(VERSION 3.22)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
file(WRITE ${WORK}/broken.svg "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"22\"")
file(WRITE ${WORK}/blank.svg "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"22\" height=\"22\"/>")
file(WRITE ${WORK}/good.svg
  "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"22\" height=\"22\"><rect width=\"22\" height=\"22\" fill=\"#2f6fbf\"/></svg>")

set(errors "")
# input | sizes | what the message says
set(cases
  "missing.svg|16|is not a readable SVG picture"
  "broken.svg|16|is not a readable SVG picture"
  "blank.svg|16|comes out empty at 16x16"
  "good.svg|16 0|0 is not an icon size"
  "good.svg|big|big is not an icon size"
  "good.svg||usage:")
foreach(case ${cases})
  string(REPLACE "|" ";" case "${case}")
  list(GET case 0 input)
  list(GET case 1 sizes)
  list(GET case 2 reason)
  separate_arguments(sizes)
  file(REMOVE_RECURSE ${WORK}/out)
  execute_process(COMMAND ${RENDERER} ${WORK}/${input} ${WORK}/out icon ${sizes}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out TIMEOUT 60)
  if(rc STREQUAL "0" OR NOT out MATCHES "${reason}")
    string(APPEND errors "${input} ${sizes}: exit ${rc}, said: ${out}\n")
  endif()
  if(NOT input STREQUAL "good.svg" AND EXISTS ${WORK}/out)
    string(APPEND errors "${input} ${sizes}: left ${WORK}/out behind\n")
  endif()
endforeach()

file(REMOVE_RECURSE ${WORK})
if(errors)
  message(FATAL_ERROR "${errors}")
endif()
