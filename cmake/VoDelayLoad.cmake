# vo_delay_load(target): the program loads the DLLs below when it first calls them. Without that the system loads all of them at the start
# of the program, and what they start in turn (themes, security packages), also where the program only prints its version.
# Link $<$<BOOL:$<TARGET_PROPERTY:VO_DELAYS_DLLS>>:VoDelayedImports> in front of the import libraries.
set(VO_DELAYED_DLLS advapi32 bcrypt comctl32 crypt32 iphlpapi normaliz ole32 oleaut32 secur32 shell32 user32 version winhttp wininet ws2_32)
add_library(VoDelayedImports INTERFACE)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND MINGW)
  find_program(VO_DLLTOOL NAMES ${VO_TRIPLE}-dlltool dlltool REQUIRED)
  foreach(dll ${VO_DELAYED_DLLS})
    set(library "${CMAKE_BINARY_DIR}/delayed/lib${dll}.a")
    add_custom_command(OUTPUT "${library}"
      COMMAND "${CMAKE_COMMAND}" "-DCOMPILER=${CMAKE_CXX_COMPILER}" "-DNM=${CMAKE_NM}" "-DDLLTOOL=${VO_DLLTOOL}" "-DDLL=${dll}"
        "-DOUTPUT=${library}" -P "${PROJECT_SOURCE_DIR}/cmake/make-delayed-library.cmake"
      DEPENDS "${PROJECT_SOURCE_DIR}/cmake/make-delayed-library.cmake" VERBATIM)
    list(APPEND libraries "${library}")
  endforeach()
  add_custom_target(VoDelayedLibraries DEPENDS ${libraries})
  target_link_libraries(VoDelayedImports INTERFACE ${libraries} delayimp)
  function(vo_delay_load target)
    set_target_properties(${target} PROPERTIES VO_DELAYS_DLLS ON)
    add_dependencies(${target} VoDelayedLibraries)
  endfunction()
elseif(MSVC)
  function(vo_delay_load target)
    list(TRANSFORM VO_DELAYED_DLLS REPLACE "(.+)" "/DELAYLOAD:\\1.dll" OUTPUT_VARIABLE options)
    target_link_options(${target} PRIVATE ${options})
    target_link_libraries(${target} PRIVATE delayimp)
  endfunction()
else()
  function(vo_delay_load target)
  endfunction()
endif()
