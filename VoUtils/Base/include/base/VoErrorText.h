// Texts of result codes for the user, the error message box, and the error translator module.
#pragma once

#include <base/VoPlatform.h>

#include <string>

// The text for the user of a result code, without a line end behind it. Any thread.
//   facility 7 (Win32): the system's text, in the user's language; for the Internet errors 12000..12192 from wininet.dll
//   facility 259: the library's own table (VoHResult.h)
//   facility 260: the error translator module, when the log's translator switch is on
//   any other: the system's text for the whole code
// Where there is no text, `useFallback` gives "Unknown system error occured!"; without it the call fails with E_FAIL. Returns
// S_FALSE (1) when `text` is null. `text` is untouched on failure.
[[nodiscard]] HRESULT VoGetErrorText(HRESULT code, bool useFallback, std::wstring* text) noexcept;

// Shows the text of a code in a message box with the caption "Error", or, for facility 260 with the translator switched on, in
// the translator module's own window; blocks until the user closes it.
[[nodiscard]] HRESULT VoShowError(HRESULT code, bool useFallback) noexcept;

// Loads the error translator module now, before the first text of facility 260 does: null loads the file
// "Kestrelan\ErrorTranslator.dll" in the folder of common program files, a name takes a module that the process has loaded
// already. The module is loaded once per process, and a failure (shown in a message box) is final: later calls give
// HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND). The module exports, in the platform's calling convention,
//     HRESULT GetErrorString(HRESULT code, BSTR* text)                    the caller frees the text
//     HRESULT ShowErrorMessageWindow(HRESULT code, const wchar_t* text)   modal
[[nodiscard]] HRESULT VoLoadErrorTranslator(const wchar_t* loadedModule) noexcept;
