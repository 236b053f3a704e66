# A unity build (CMAKE_UNITY_BUILD, on in the preset mingw) compiles sources in groups, which takes about half of the time. Names in unnamed
# namespaces must therefore differ between the sources of a target.
# vo_unity(SOURCE...): leaves those sources alone that include <wininet.h>, which declares the names of <winhttp.h> once more.
function(vo_unity)
  set(sources ${ARGN})
  list(FILTER sources INCLUDE REGEX "(WinINet[A-Za-z]*|VoBrowserCookies|VoBrowserDialogTest)\\.cpp$")
  set_property(SOURCE ${sources} PROPERTY SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()
