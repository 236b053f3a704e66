# vo_program(target DESCRIPTION): adds the manifest (supported systems, common controls 6), a VERSIONINFO resource, static run-time
# libraries and warnings as errors to a program.
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
