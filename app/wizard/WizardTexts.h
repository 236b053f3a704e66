// The texts of the string table (Strings.rc), and those of result codes.
#pragma once

#include <base/VoPlatform.h>

#include <initializer_list>
#include <string>
#include <string_view>

// The text of a number; empty when the table has none. Throws std::bad_alloc.
[[nodiscard]] std::wstring WizardText(UINT id);
// The same with "%1", "%2" ... replaced. Throws std::bad_alloc.
[[nodiscard]] std::wstring WizardText(UINT id, std::initializer_list<std::wstring_view> values);
// The text of a result code with the code behind it. Throws std::bad_alloc.
[[nodiscard]] std::wstring WizardErrorText(HRESULT hr);
