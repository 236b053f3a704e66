# Cross build for 64-bit Windows with clang, on the headers and libraries of Debian's mingw-w64 (posix threads).
include("${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake")
set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_C_COMPILER_TARGET ${VO_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${VO_TRIPLE})
# clang's own linker: the GNU linker that clang would call does not find all parts of a static program. g++ adds the threads library by
# itself, clang does not.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -lpthread")
# g++'s standard library uses emulated thread-local variables. Its own templates call deprecated functions; g++ still warns where our
# code calls them.
set(CMAKE_CXX_FLAGS_INIT "-femulated-tls -Wno-deprecated-declarations")
