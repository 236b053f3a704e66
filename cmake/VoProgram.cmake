# vo_program(target DESCRIPTION [MANIFEST]): adds the manifest (supported systems, common controls 6), a VERSIONINFO resource, static
# run-time libraries and warnings as errors to a program. The linker writes no time into it: the same sources give the same program.
function(vo_program target description)
  set(VO_PROGRAM_NAME ${target})
  set(VO_PROGRAM_DESCRIPTION "${description}")
  set(VO_PROGRAM_MANIFEST "${PROJECT_SOURCE_DIR}/cmake/program.manifest")
  if(ARGC GREATER 2)
    set(VO_PROGRAM_MANIFEST "${ARGV2}")
  endif()
  configure_file("${PROJECT_SOURCE_DIR}/cmake/program.rc.in" "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc" @ONLY)
  target_sources(${target} PRIVATE "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc")
  if(NOT MSVC)
    # Sections that begin at a page of the file are mapped everywhere; some systems copy others at each start.
    target_link_options(${target} PRIVATE -static -Wl,--no-insert-timestamp -Wl,--file-alignment,4096
      $<$<CONFIG:Release>:-Wl,--strip-debug>)
  endif()
  vo_warnings(${target})
endfunction()
