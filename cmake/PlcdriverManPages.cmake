# Manual pages and bash completions (included from PlcdriverPackaging.cmake,
# once every program of the build is known):
#   share/man/man3/FUNCTION.3.gz  one page per function of the exported C
#                                 interface (component "development")
#   share/man/man1/plcpoll.1.gz, plcsim.1.gz, plcgate.1.gz (component "tools")
#   share/bash-completion/completions/plcpoll, plcsim, plcgate (component "tools")
# The pages are written in scdoc (docs/man/NAME.SECTION.scd), turned into
# roff by Debian's scdoc at build time and compressed as Debian installs
# manual pages. -DPLCDRIVER_BUILD_MAN=OFF (PlcdriverInstall.cmake) builds
# and installs none.
include(GNUInstallDirs)

set(PLCDRIVER_MAN_SOURCE_DIR ${PROJECT_SOURCE_DIR}/docs/man)
set(PLCDRIVER_MAN_DIR ${PROJECT_BINARY_DIR}/man)

# plcdriver_man_pages(COMPONENT PAGE...): PAGE is NAME.SECTION, its source
# docs/man/NAME.SECTION.scd.
function(plcdriver_man_pages component)
  foreach(page ${ARGN})
    string(REGEX REPLACE "^.*\\.([0-9])$" "\\1" section ${page})
    set(source ${PLCDRIVER_MAN_SOURCE_DIR}/${page}.scd)
    set(output ${PLCDRIVER_MAN_DIR}/${page}.gz)
    # gzip -n leaves out the name and time of the input, so the page is the
    # same from one build to the next.
    add_custom_command(OUTPUT ${output}
      COMMAND sh -c "'${PLCDRIVER_SCDOC}' < '${source}' | '${PLCDRIVER_GZIP}' -9n > '${output}'"
      DEPENDS ${source}
      COMMENT "Manual page ${page}"
      VERBATIM)
    list(APPEND outputs ${output})
    install(FILES ${output} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  endforeach()
  add_custom_target(man_pages_${component} ALL DEPENDS ${outputs})
endfunction()

if(PLCDRIVER_BUILD_MAN)
  find_program(PLCDRIVER_SCDOC scdoc)
  find_program(PLCDRIVER_GZIP gzip)
  if(NOT PLCDRIVER_SCDOC OR NOT PLCDRIVER_GZIP)
    message(FATAL_ERROR "the manual pages need scdoc and gzip: bash scripts/install-deps.sh build "
                        "(or configure with -DPLCDRIVER_BUILD_MAN=OFF)")
  endif()
  file(MAKE_DIRECTORY ${PLCDRIVER_MAN_DIR})
  file(GLOB _plcdriver_function_pages RELATIVE ${PLCDRIVER_MAN_SOURCE_DIR} ${PLCDRIVER_MAN_SOURCE_DIR}/*.3.scd)
  string(REPLACE ".scd" "" _plcdriver_function_pages "${_plcdriver_function_pages}")
  plcdriver_man_pages(development ${_plcdriver_function_pages})
  set(_plcdriver_program_pages)
  foreach(program plcpoll plcsim plcgate)
    if(TARGET ${program})
      list(APPEND _plcdriver_program_pages ${program}.1)
    endif()
  endforeach()
  if(_plcdriver_program_pages)
    plcdriver_man_pages(tools ${_plcdriver_program_pages})
  endif()
endif()

# Completions go where bash-completion loads them on demand, named after the
# command (bash-completion's completionsdir under the prefix).
foreach(program plcpoll plcsim plcgate)
  if(TARGET ${program})
    install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/${program}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
  endif()
endforeach()
