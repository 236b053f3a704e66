// ISO 8601 text of dates and times, and the process's clock.
//
// Functions that return an HRESULT report their failures under their own name and leave their outputs untouched when they
// fail. Any thread may call.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <string>
#include <string_view>

// ISO 8601 text of a date-time: "YYYY-MM-DD", with the time "YYYY-MM-DDThh:mm:ss[.mmm](Z|+hh:mm|-hh:mm)". `offsetMinutes` from
// UTC must lie within -1439..1439 when the time is included (E_INVALIDARG). Milliseconds that are zero are never written.
[[nodiscard]] HRESULT VoSystemTimeToISO8601DateTimeStr(const SYSTEMTIME& time, int offsetMinutes, bool includeTime,
                                                       bool includeMilliseconds, std::wstring& text) noexcept;
// Reads the forms that the function above writes; a fraction of a second may have 1 to 9 digits (cut to milliseconds), a blank
// may stand for the "T", and the zone may be missing (offset 0). `time` receives the fields as written, `offsetMinutes` (may be
// null) the offset. E_INVALIDARG for anything else, impossible dates included.
[[nodiscard]] HRESULT VoISO8601DateTimeStrToSystemTime(CVoTextView text, SYSTEMTIME& time, int* offsetMinutes) noexcept;

// The process's high-resolution clock (QueryPerformanceCounter), in microseconds from an arbitrary start. Never goes back.
[[nodiscard]] INT64 VoGetMicroseconds() noexcept;
