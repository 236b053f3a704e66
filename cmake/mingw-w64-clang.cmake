# Cross build for 64-bit Windows with clang, on the headers and libraries of Debian's mingw-w64 (posix threads).
include("${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake")
set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_C_COMPILER_TARGET ${VO_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${VO_TRIPLE})
# The GNU linker that clang would call does not find everything of a static program; its own does. It must be told of the
# threads library, which g++ adds by itself.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -lpthread")
# g++'s library holds its thread-local variables as g++ does for Windows. And instantiations of its templates call what it
# deprecates; what the code itself calls is seen by g++.
set(CMAKE_CXX_FLAGS_INIT "-femulated-tls -Wno-deprecated-declarations")
