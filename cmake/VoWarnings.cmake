# Warnings are errors, on every compiler.
function(vo_warnings target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4 /WX /permissive- /utf-8)
  else()
    target_compile_options(${target} PRIVATE
      -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
      -Wold-style-cast -Wcast-qual -Wundef -Werror)
  endif()
endfunction()
