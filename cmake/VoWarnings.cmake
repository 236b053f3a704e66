# Warnings are errors with every compiler. -Wnon-virtual-dtor is off: every COM interface would raise it, because IUnknown has no virtual
# destructor by design. A delete through such a base is still an error (-Wdelete-non-virtual-dtor, in -Wall).
function(vo_warnings target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4 /WX /permissive- /utf-8)
  else()
    target_compile_options(${target} PRIVATE
      -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Woverloaded-virtual
      -Wold-style-cast -Wcast-qual -Wundef -Werror
      # g++ takes the sources of a unity build for headers, and warns of classes there that use types of an unnamed namespace.
      $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:$<TARGET_PROPERTY:${target},UNITY_BUILD>>>:-Wno-subobject-linkage>)
  endif()
endfunction()
