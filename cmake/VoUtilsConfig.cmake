# What find_package(VoUtils) reads: the target VoUtils::VoUtils. libcurl (7.88, static, with Schannel) is looked up where
# CMAKE_PREFIX_PATH points.
include(CMakeFindDependencyMacro)
find_dependency(CURL)
include("${CMAKE_CURRENT_LIST_DIR}/VoUtilsTargets.cmake")
