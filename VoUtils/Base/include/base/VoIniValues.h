// Typed values of INI files.
#pragma once

#include <base/VoPlatform.h>

#include <string>

// Values of an INI file, read with the platform's profile functions as text of at most 260 characters. A missing key, or a
// value that does not parse, gives the default. `present` (may be null) tells whether the key was there.
[[nodiscard]] bool VoGetIniBool(const std::wstring& file, const wchar_t* section, const wchar_t* key, bool defaultValue,
                                bool* present = nullptr);
[[nodiscard]] INT32 VoGetIniInt(const std::wstring& file, const wchar_t* section, const wchar_t* key, INT32 defaultValue,
                                bool* present = nullptr);
[[nodiscard]] std::wstring VoGetIniString(const std::wstring& file, const wchar_t* section, const wchar_t* key,
                                          const std::wstring& defaultValue, bool* present = nullptr);
