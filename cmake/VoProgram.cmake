# vo_program(target DESCRIPTION): what every program needs: the manifest (supported systems, common controls 6), a VERSIONINFO
# resource, static run-time libraries, wide-character entry and warnings as errors.
function(vo_program target description)
  set(VO_PROGRAM_NAME ${target})
  set(VO_PROGRAM_DESCRIPTION "${description}")
  set(VO_PROGRAM_MANIFEST "${PROJECT_SOURCE_DIR}/cmake/program.manifest")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/program.rc.in" "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc" @ONLY)
  target_sources(${target} PRIVATE "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc")
  if(NOT MSVC)
    target_link_options(${target} PRIVATE -static)
  endif()
  vo_warnings(${target})
endfunction()
