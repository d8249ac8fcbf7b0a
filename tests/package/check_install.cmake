# Installs the tray's component into a throw-away root and checks what is
# there: exactly the listed files, the icons as PNG pictures of their sizes
# with transparency, the compiled catalogue, the desktop entry
# pointing at the installed program and icon, and the software-centre entry
# at the desktop entry; the installed tree passes the validators where they
# are installed.
# cmake -DBUILD_DIR=... -DROOT=... -DEXPECTED=installed-files.txt -P check_install.cmake
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/validators.cmake)

set(errors "")
macro(fail text)
  string(APPEND errors "${text}\n")
endmacro()

file(REMOVE_RECURSE ${ROOT})
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env DESTDIR=${ROOT}
          ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix /usr --component tray
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out TIMEOUT 60)
if(NOT rc STREQUAL "0")
  message(FATAL_ERROR "cmake --install did not succeed (${rc}); is the project built?\n${out}")
endif()

# Exactly the listed files, none missing and none more.
file(STRINGS ${EXPECTED} expected REGEX "^[^#]")
list(TRANSFORM expected PREPEND "usr/")
list(SORT expected)
file(GLOB_RECURSE installed LIST_DIRECTORIES false RELATIVE ${ROOT} ${ROOT}/*)
list(SORT installed)
set(missing ${expected})
list(REMOVE_ITEM missing ${installed})
set(extra ${installed})
list(REMOVE_ITEM extra ${expected})
if(missing)
  string(REPLACE ";" "\n  " missing "${missing}")
  fail("not installed:\n  ${missing}")
endif()
if(extra)
  string(REPLACE ";" "\n  " extra "${extra}")
  fail("installed but not expected:\n  ${extra}")
endif()

set(usr ${ROOT}/usr)

# Each PNG icon: a PNG picture as wide and high as its folder says, with an
# alpha channel (colour type 6).
file(GLOB pngs ${usr}/share/icons/hicolor/*/apps/*.png)
foreach(png ${pngs})
  file(READ ${png} head HEX LIMIT 26)
  string(REGEX MATCH "/([0-9]+)x([0-9]+)/apps/" size "${png}")
  set(side ${CMAKE_MATCH_1})
  string(SUBSTRING "${head}" 0 32 signature)
  if(NOT signature STREQUAL "89504e470d0a1a0a0000000d49484452")
    fail("${png}: not a PNG picture")
    continue()
  endif()
  string(SUBSTRING "${head}" 32 8 width)
  string(SUBSTRING "${head}" 40 8 height)
  string(SUBSTRING "${head}" 50 2 colour)
  math(EXPR width "0x${width}")
  math(EXPR height "0x${height}")
  if(NOT width EQUAL side OR NOT height EQUAL side)
    fail("${png}: ${width}x${height}, in the folder of ${side}x${side}")
  endif()
  if(NOT colour STREQUAL "06")
    fail("${png}: no alpha channel (PNG colour type ${colour})")
  endif()
endforeach()

# The catalogue is a compiled Qt catalogue.
set(qm ${usr}/share/zel5_tray/translations/zel5_tray_de.qm)
if(EXISTS ${qm})
  file(READ ${qm} magic HEX LIMIT 16)
  if(NOT magic STREQUAL "3cb86418caef9c95cd211cbf60a1bddd")
    fail("${qm}: not a compiled Qt catalogue")
  endif()
endif()

# The desktop entry starts the installed program and names the icon that is
# there in every size; the software-centre entry is named after its id and
# launches that desktop entry.
set(desktop ${usr}/share/applications/zel5_tray.desktop)
if(EXISTS ${desktop})
  file(STRINGS ${desktop} exec REGEX "^Exec=")
  file(STRINGS ${desktop} icon REGEX "^Icon=")
  string(REGEX REPLACE "^Exec=([^ ]*).*" "\\1" exec "${exec}")
  string(REGEX REPLACE "^Icon=" "" icon "${icon}")
  if(NOT EXISTS ${usr}/bin/${exec})
    fail("the desktop entry starts ${exec}, which is not installed in usr/bin")
  endif()
  file(GLOB icons ${usr}/share/icons/hicolor/*/apps/${icon}.*)
  list(LENGTH icons count)
  if(NOT count EQUAL 9) # eight PNG sizes and the scalable picture
    fail("the desktop entry's icon ${icon} is installed ${count} times, not in 9 sizes")
  endif()
endif()
file(GLOB metainfo ${usr}/share/metainfo/*.metainfo.xml)
foreach(file ${metainfo})
  file(READ ${file} xml)
  string(REGEX MATCH "<id>([^<]*)</id>" id "${xml}")
  set(id ${CMAKE_MATCH_1})
  string(REGEX MATCH "<launchable type=\"desktop-id\">([^<]*)</launchable>" launchable "${xml}")
  set(launchable ${CMAKE_MATCH_1})
  get_filename_component(name ${file} NAME)
  if(NOT name STREQUAL "${id}.metainfo.xml")
    fail("${name} is not named after its component id ${id}")
  endif()
  if(NOT launchable OR NOT EXISTS ${usr}/share/applications/${launchable})
    fail("${name} launches the desktop entry '${launchable}', which is not installed")
  endif()
endforeach()

if(DESKTOP_FILE_VALIDATE AND EXISTS ${desktop})
  zel5_validate_desktop_file(${desktop} error)
  string(APPEND errors "${error}")
else()
  message("desktop-file-validate is not installed (desktop-file-utils): the installed desktop entry is not validated")
endif()
if(APPSTREAMCLI)
  zel5_validate_appstream(validate-tree ${ROOT} error)
  string(APPEND errors "${error}")
else()
  message("appstreamcli is not installed (appstream): the installed tree is not validated")
endif()

if(errors)
  message(FATAL_ERROR "${errors}")
endif()
message(STATUS "installed into ${ROOT}: ${installed}")
