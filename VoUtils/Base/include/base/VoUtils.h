// General utilities: text, dates, variants, paths, values of INI files.
//
// Every function that answers an HRESULT reports its failures under its own name and leaves its outputs untouched when it
// fails. Any thread may call any of them.
#pragma once

#include <base/VoHResult.h>
#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <string>
#include <string_view>

// "TRUE", "1", "YES", "ON" and "FALSE", "0", "NO", "OFF" without regard to case; E_INVALIDARG for anything else.
[[nodiscard]] HRESULT VoStringToBool(std::wstring_view text, bool& value) noexcept;

// UTF-16 to the system's ANSI code page. E_FAIL or the platform's error when it cannot be converted.
[[nodiscard]] HRESULT VoStringToASCII(std::wstring_view text, std::string& bytes) noexcept;
// UTF-16 to UTF-8 and back. Text that is not well formed is an error (ERROR_NO_UNICODE_TRANSLATION).
[[nodiscard]] HRESULT VoStringToUTF8(std::wstring_view text, std::string& bytes) noexcept;
[[nodiscard]] HRESULT VoUTF8ToString(std::string_view bytes, std::wstring& text) noexcept;
// The general form: `codePage` as for WideCharToMultiByte (CP_UTF8 refuses malformed text; other code pages replace what they
// do not have, as the platform does).
[[nodiscard]] HRESULT VoStringToCodePage(UINT codePage, std::wstring_view text, std::string& bytes) noexcept;
[[nodiscard]] HRESULT VoCodePageToString(UINT codePage, std::string_view bytes, std::wstring& text) noexcept;

// ISO 8601 text of a date-time: "YYYY-MM-DD", with the time "YYYY-MM-DDThh:mm:ss[.mmm](Z|+hh:mm|-hh:mm)". `offsetMinutes` from
// UTC must lie within -1439..1439 when the time is included (E_INVALIDARG). Milliseconds that are zero are never written.
[[nodiscard]] HRESULT VoSystemTimeToISO8601DateTimeStr(const SYSTEMTIME& time, int offsetMinutes, bool includeTime,
                                                       bool includeMilliseconds, std::wstring& text) noexcept;
// Reads the forms that the function above writes; a fraction of a second may have 1 to 9 digits (cut to milliseconds), a blank
// may stand for the "T", and the zone may be missing (offset 0). `time` receives the fields as written, `offsetMinutes` (may be
// null) the offset. E_INVALIDARG for anything else, impossible dates included.
[[nodiscard]] HRESULT VoISO8601DateTimeStrToSystemTime(std::wstring_view text, SYSTEMTIME& time, int* offsetMinutes) noexcept;

// Changes a variant's type under a locale; text to and from bool, currency, date and decimal goes through the platform's Var...
// functions for that locale. `destination` and `source` may be the same.
[[nodiscard]] HRESULT VoChangeVariantType(VARIANT& destination, const VARIANT& source, VARTYPE type, LCID locale) noexcept;
// The same independent of the user's regional settings (LOCALE_INVARIANT): numbers with ".", booleans as the platform's
// VarBstrFromBool writes them, "True" and "False".
[[nodiscard]] HRESULT VoChangeVariantTypeNoLocale(VARIANT& destination, const VARIANT& source, VARTYPE type) noexcept;

// Typed values to a variant and back, by the rules of VoChangeVariantTypeNoLocale. What `variant` held before is not freed; the
// caller clears it. An unsigned number is read from -2147483648 (bit for bit) to 4294967295.
[[nodiscard]] HRESULT VoTypeToVariant(std::wstring_view value, VARIANT& variant) noexcept;
// Without it a pointer would be taken for a boolean. A null pointer is an empty text.
[[nodiscard]] inline HRESULT VoTypeToVariant(const wchar_t* value, VARIANT& variant) noexcept
{
    return VoTypeToVariant(value ? std::wstring_view(value) : std::wstring_view(), variant);
}
[[nodiscard]] HRESULT VoTypeToVariant(UINT32 value, VARIANT& variant) noexcept; // VT_I4, bit for bit
[[nodiscard]] HRESULT VoTypeToVariant(double value, VARIANT& variant) noexcept;
[[nodiscard]] HRESULT VoTypeToVariant(bool value, VARIANT& variant) noexcept;
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, std::wstring& value) noexcept;
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, UINT32& value) noexcept;
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, double& value) noexcept;
[[nodiscard]] HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, bool& value) noexcept;

// Folder (without a trailing backslash) and file name of a module's file; null is the program itself. A long-path prefix is
// taken off (VoWithoutLongPathPrefix). Either out pointer may be null.
[[nodiscard]] HRESULT GetModuleDirAndFileName(HMODULE module, std::wstring* directory, std::wstring* fileName) noexcept;
// A path without the prefix that lifts its length limit: "\\?\C:\x" becomes "C:\x", "\\?\UNC\server\share" "\\server\share". A
// path that needs its prefix (MAX_PATH characters or more, or a volume's name) keeps it. Throws std::bad_alloc.
[[nodiscard]] std::wstring VoWithoutLongPathPrefix(std::wstring_view path);
// The user's temporary folder, without a trailing backslash.
[[nodiscard]] HRESULT VoGetTempPath(std::wstring& path) noexcept;

// Values of an INI file, read with the platform's profile functions as text of at most 260 characters. A missing key, or a
// value that does not parse, gives the default. `present` (may be null) tells whether the key was there.
[[nodiscard]] bool VoGetIniBool(const std::wstring& file, const wchar_t* section, const wchar_t* key, bool defaultValue,
                                bool* present = nullptr);
[[nodiscard]] INT32 VoGetIniInt(const std::wstring& file, const wchar_t* section, const wchar_t* key, INT32 defaultValue,
                                bool* present = nullptr);
[[nodiscard]] std::wstring VoGetIniString(const std::wstring& file, const wchar_t* section, const wchar_t* key,
                                          const std::wstring& defaultValue, bool* present = nullptr);

// The process's high-resolution clock (QueryPerformanceCounter), in microseconds from an arbitrary start. Never goes back.
[[nodiscard]] INT64 VoGetMicroseconds() noexcept;
