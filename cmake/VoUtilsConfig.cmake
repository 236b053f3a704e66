# What find_package(VoUtils) reads: the target VoUtils::VoUtils. libcurl (7.88, static, with Schannel) and zlib must be in
# CMAKE_PREFIX_PATH.
include(CMakeFindDependencyMacro)
find_dependency(CURL)
find_dependency(ZLIB)
include("${CMAKE_CURRENT_LIST_DIR}/VoUtilsTargets.cmake")
