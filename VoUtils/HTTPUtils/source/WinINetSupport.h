// What the WinINet transport asks of an answer and of its connection. It reports under the transport's source name, so its
// trace points share the transport's numbers. Not for files that use WinHTTP: the services' headers do not go together.
#pragma once

#include <VoHTTPMessageWinINet.h>

#include <base/VoErrorHandler.h>

#include <wininet.h>

#include <optional>
#include <string>

namespace VoHTTPMessageWinINet
{
inline constexpr const wchar_t* kSource = L"..\\source\\VoHTTPMessageWinINet";

// The text of an option. False when the query failed, with its error as the last one; the text is empty then. No copy of the
// text is left anywhere else.
[[nodiscard]] bool QueryOptionText(HINTERNET handle, DWORD option, std::wstring& text);

// The answer's headers of one name, by its query code: gives that at `index` (0 for the first) and moves the index to the next.
// False when there is none.
[[nodiscard]] bool NextHeader(HINTERNET request, DWORD query, DWORD& index, std::wstring& value);
// The first of them; nothing where the answer has none.
[[nodiscard]] std::optional<std::wstring> CheckHeader(HINTERNET request, DWORD query);
// The same as a number; nothing either where it is no number.
[[nodiscard]] std::optional<UINT64> GetHeaderLongValue(HINTERNET request, DWORD query);
// How long the answer's body will be; nothing where that is not known. A transfer coding overrides a length (RFC 9112, section
// 6.3).
[[nodiscard]] std::optional<UINT64> AnnouncedLength(HINTERNET request);

// The status of the answer that the request has. Failures are reported at `line` and the one behind it.
[[nodiscard]] HRESULT QueryStatus(HINTERNET request, UINT32& status, const CVoReporter& report, int line) noexcept;

// Traces the two ends of the request's connection and its send buffer, and gives the client's address; empty where the platform
// has no socket to show.
[[nodiscard]] std::wstring internalGetClientIPAddressAndSendBufferSize(HINTERNET request);
} // namespace VoHTTPMessageWinINet
