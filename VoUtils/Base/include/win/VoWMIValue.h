// The values of Windows Management Instrumentation as text.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <string>
#include <string_view>

namespace VoWMIQuery
{
// The text of a property's value. `type` is the property's CIM type (a CIMTYPE of the platform's <wbemcli.h>), which
// IWbemClassObject::Get gives beside the value: the variant alone does not tell an unsigned number, a date-time or a character.
// 0 stands for an unknown type, and leaves the variant's own.
//
//   null, empty                      empty text
//   boolean                          "TRUE" or "FALSE"
//   sint8 to sint32, uint8 to uint32 decimal
//   sint64, uint64                   decimal; the platform hands them over as text already
//   real32, real64                   the shortest decimal text that reads back as the same number: "0.1", "1e+21", "inf", "nan"
//   char16                           the character
//   string, reference                the text itself
//   datetime                         WMIDateTimeToISO8601; text that is no CIM date-time stays as it is
//   object                           its MOF text (IWbemClassObject::GetObjectText)
//   array of these                   the elements' texts joined with ", "; an empty array is an empty text
//
// DISP_E_TYPEMISMATCH for a variant of another kind and for an array of several dimensions, the platform's error for an object
// or array that cannot be read, E_OUTOFMEMORY.
[[nodiscard]] HRESULT WMIValueToText(const VARIANT& value, long type, std::wstring& text) noexcept;

// ISO 8601 text of a CIM date-time (DMTF DSP0004, "Datetime type"), which has 25 characters.
//   A time stamp "yyyymmddHHMMSS.mmmmmmsUUU" becomes "2024-02-29T12:00:00.25+01:00": the fraction without trailing zeros, none
//   when it is zero, and "Z" for an offset of zero. A stamp whose end is filled with asterisks, which stand for digits that are
//   not known, gives the part that is ("2024-02-29T12:00Z", "2024-02"; a date alone has no zone); an unknown offset is left
//   out. An interval "ddddddddHHMMSS.mmmmmm:000" becomes a duration, "P8DT13H12M11.5S": parts that are zero are left out, and
//   "PT0S" is the empty one.
// E_INVALIDARG for anything else, impossible dates included.
[[nodiscard]] HRESULT WMIDateTimeToISO8601(CVoTextView value, std::wstring& text) noexcept;
} // namespace VoWMIQuery
