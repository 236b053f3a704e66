// VO_TARGET, for the code that uses instructions beyond those that every processor for x86-64 has.
#pragma once

// Lets one function use such instructions, so that no other code of its file does. Only g++ and clang ask for it. Lambdas do
// not inherit it.
#if defined(_MSC_VER) && !defined(__clang__)
#define VO_TARGET(features)
#else
#define VO_TARGET(features) __attribute__((target(features)))
#endif
