// The data log: the bytes that a message sends and receives, for the developer who debugs the module.
#pragma once

#include <base/VoLock.h>
#include <base/VoPlatform.h>

#include <span>
#include <string>
#include <string_view>

// One file in the folder "\logdir" of the current drive, named after the local time of its first record. Records are appended
// whole, so that several logs begun in the same second can share a file. It holds what travelled, credentials included, and is
// written only while the module's debug flag is set. Any thread. A record that cannot be written is reported and dropped.
class CVoDataLog
{
public:
    // Appends the rule "\r\n\r\n----------------------------\r\n", the header line and the data. `time` is the record's.
    HRESULT Append(const SYSTEMTIME& time, std::wstring_view header, std::span<const BYTE> data) noexcept;

private:
    CVoLock m_lock;
    std::wstring m_path; // empty until the first record
};
