# Cross build for 64-bit Windows with Debian's mingw-w64 (posix threads).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(VO_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${VO_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VO_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VO_TRIPLE}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${VO_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# The set-up script builds libraries outside the compiler's root: search both.
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# Link zlib statically: programs come without its DLL.
set(ZLIB_USE_STATIC_LIBS ON)
