// The interfaces through which the browser dialog and the embedded browser talk, with their identifiers.
#pragma once

#include <base/com/VoIUnknown.h>

// clang-format off: these need the ones before them.
#include <ocidl.h>
#include <oleidl.h>
#include <servprov.h>
#include <urlmon.h>
#include <docobj.h>
#include <downloadmgr.h>
#include <exdisp.h>
#include <mshtmhst.h>
// clang-format on

namespace VoBrowserDetail
{
// The identifiers of OLE's own interfaces differ in their first part only.
constexpr IID OleId(unsigned long first) noexcept
{
    return { first, 0x0000, 0x0000, { 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46 } };
}
} // namespace VoBrowserDetail

// DIID_DWebBrowserEvents2, the browser's events.
inline constexpr IID kVoBrowserEvents{ 0x34A715A0, 0x6587, 0x11D0, { 0x92, 0x4A, 0x00, 0x20, 0xAF, 0xC7, 0xAC, 0x4D } };
// CLSID_WebBrowser, the browser control.
inline constexpr CLSID kVoBrowserControl{ 0x8856F961, 0x340A, 0x11D0, { 0xA9, 0x6B, 0x00, 0xC0, 0x4F, 0xD7, 0x05, 0xA2 } };

template <>
struct VoInterfaceId<IClassFactory>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000001);
};
template <>
struct VoInterfaceId<IOleObject>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000112);
};
template <>
struct VoInterfaceId<IOleInPlaceObject>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000113);
};
template <>
struct VoInterfaceId<IOleWindow>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000114);
};
template <>
struct VoInterfaceId<IOleInPlaceUIWindow>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000115);
};
template <>
struct VoInterfaceId<IOleInPlaceFrame>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000116);
};
template <>
struct VoInterfaceId<IOleInPlaceActiveObject>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000117);
};
template <>
struct VoInterfaceId<IOleClientSite>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000118);
};
template <>
struct VoInterfaceId<IOleInPlaceSite>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00000119);
};
template <>
struct VoInterfaceId<IDispatch>
{
    static constexpr IID value = VoBrowserDetail::OleId(0x00020400);
};
template <>
struct VoInterfaceId<IOleControlSite>
{
    static constexpr IID value{ 0xB196B289, 0xBAB4, 0x101A, { 0xB6, 0x9C, 0x00, 0xAA, 0x00, 0x34, 0x1D, 0x07 } };
};
template <>
struct VoInterfaceId<IConnectionPoint>
{
    static constexpr IID value{ 0xB196B286, 0xBAB4, 0x101A, { 0xB6, 0x9C, 0x00, 0xAA, 0x00, 0x34, 0x1D, 0x07 } };
};
template <>
struct VoInterfaceId<IConnectionPointContainer>
{
    static constexpr IID value{ 0xB196B284, 0xBAB4, 0x101A, { 0xB6, 0x9C, 0x00, 0xAA, 0x00, 0x34, 0x1D, 0x07 } };
};
template <>
struct VoInterfaceId<IOleCommandTarget>
{
    static constexpr IID value{ 0xB722BCCB, 0x4E68, 0x101B, { 0xA2, 0xBC, 0x00, 0xAA, 0x00, 0x40, 0x47, 0x70 } };
};
template <>
struct VoInterfaceId<IServiceProvider>
{
    static constexpr IID value{ 0x6D5140C1, 0x7436, 0x11CE, { 0x80, 0x34, 0x00, 0xAA, 0x00, 0x60, 0x09, 0xFA } };
};
template <>
struct VoInterfaceId<IDocHostUIHandler>
{
    static constexpr IID value{ 0xBD3F23C0, 0xD43E, 0x11CF, { 0x89, 0x3B, 0x00, 0xAA, 0x00, 0xBD, 0xCE, 0x1A } };
};
template <>
struct VoInterfaceId<IDownloadManager>
{
    static constexpr IID value{ 0x988934A4, 0x064B, 0x11D3, { 0xBB, 0x80, 0x00, 0x10, 0x4B, 0x35, 0xE7, 0xF9 } };
};
template <>
struct VoInterfaceId<IWebBrowser2>
{
    static constexpr IID value{ 0xD30C1661, 0xCDAF, 0x11D0, { 0x8A, 0x3E, 0x00, 0xC0, 0x4F, 0xC9, 0xE2, 0x6E } };
};
