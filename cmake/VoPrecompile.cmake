# vo_precompile(target [HEADER...]): precompiles the headers that nearly every source includes, and HEADER... beside them. They are most
# of the time that a source takes to compile.
# With g++ only: clang's build is for clang-tidy, and finds sources that do not include what they use.
set(VO_COMMON_HEADERS <base/VoPlatform.h> <algorithm> <array> <atomic> <functional> <map> <memory> <mutex> <optional> <span> <string>
  <string_view> <utility> <vector>)
function(vo_precompile target)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_precompile_headers(${target} PRIVATE ${VO_COMMON_HEADERS} ${ARGN})
  endif()
endfunction()

# vo_precompile_as(target OTHER): uses the precompiled headers of OTHER, which is compiled with the same options.
function(vo_precompile_as target other)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_precompile_headers(${target} REUSE_FROM ${other})
  endif()
endfunction()
