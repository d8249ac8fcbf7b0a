# The validators of desktop entries and AppStream metadata, run with a bound.
# Each sets <result> to an error text, empty when the file is valid.

find_program(DESKTOP_FILE_VALIDATE desktop-file-validate)
find_program(APPSTREAMCLI appstreamcli)

function(zel5_run result)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out TIMEOUT 60)
  set(${result}_rc "${rc}" PARENT_SCOPE)
  set(${result}_out "${out}" PARENT_SCOPE)
endfunction()

# Valid with nothing to remark, not even a hint.
function(zel5_validate_desktop_file file result)
  zel5_run(run ${DESKTOP_FILE_VALIDATE} ${file})
  if(NOT run_rc STREQUAL "0" OR NOT run_out STREQUAL "")
    set(${result} "desktop-file-validate ${file} (${run_rc}):\n${run_out}" PARENT_SCOPE)
  else()
    set(${result} "" PARENT_SCOPE)
  endif()
endfunction()

# mode: validate (one file) or validate-tree (an install root). No error and
# no warning; infos and pedantic hints are shown but allowed.
function(zel5_validate_appstream mode path result)
  zel5_run(run ${APPSTREAMCLI} ${mode} --no-net --pedantic ${path})
  if(NOT run_rc STREQUAL "0" OR run_out MATCHES "(^|\n) *[EW]: ")
    set(${result} "appstreamcli ${mode} ${path} (${run_rc}):\n${run_out}" PARENT_SCOPE)
  else()
    message(STATUS "appstreamcli ${mode} ${path}:\n${run_out}")
    set(${result} "" PARENT_SCOPE)
  endif()
endfunction()
