// The platform's headers in their order, and the lines that depend on the compiler. Every header of the library includes this
// one instead of the platform's headers.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
#endif
// Windows 8.1: the oldest release whose socket, WinHTTP and Schannel interfaces the library calls.
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0603
#endif

// clang-format off: winsock2.h must come before windows.h, which otherwise brings the older winsock.h in.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
// clang-format on

// A function that must not be inlined: it is outside the callers' hot path, or a handler needs its frame.
#if defined(_MSC_VER) && !defined(__clang__)
#define VO_NOINLINE __declspec(noinline)
#else
#define VO_NOINLINE __attribute__((noinline))
#endif
