#include "VoDataLog.h"

#include <base/VoErrorHandler.h>
#include <base/VoHandle.h>
#include <base/VoUtils.h>

#include <mutex>

namespace
{
constexpr const wchar_t* kDataLogSource = L"..\\source\\VoDataLog";
constexpr const wchar_t* kFolder = L"\\logdir";
} // namespace

HRESULT CVoDataLog::Append(const SYSTEMTIME& time, std::wstring_view header, std::span<const BYTE> data) noexcept
try
{
    constexpr CVoReporter report{ kDataLogSource, L"CVoDataLog::Append" };
    std::string record;
    if (const HRESULT hr = VoStringToUTF8(L"\r\n\r\n----------------------------\r\n" + std::wstring(header) + L"\r\n", record);
        FAILED(hr))
        return report(20, hr);
    record.append(reinterpret_cast<const char*>(data.data()), data.size());

    const std::scoped_lock lock(m_lock);
    if (m_path.empty())
    {
        if (!::CreateDirectoryW(kFolder, nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS)
            return report.LastError(30, 31);
        m_path = kFolder + VoFormat(L"\\%4d_%02d_%02d__%02d_%02d_%02d.log", time.wYear, time.wMonth, time.wDay, time.wHour,
                                    time.wMinute, time.wSecond);
    }
    // Appending access alone makes each write land at the end, whoever else writes.
    const CVoHandle file(::CreateFileW(m_path.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return report.LastError(40, 41);
    DWORD written = 0;
    if (!::WriteFile(file.Get(), record.data(), static_cast<DWORD>(record.size()), &written, nullptr))
        return report.LastError(45, 46);
    return written == record.size() ? S_OK : report(47, HResultFromWin32(ERROR_WRITE_FAULT));
}
catch (...)
{
    return CVoReporter{ kDataLogSource, L"CVoDataLog::Append" }.CurrentException(50);
}
