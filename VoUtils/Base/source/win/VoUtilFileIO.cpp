// INI files in memory and on disk (VoUtilFileIO.h).
#include <win/VoUtilFileIO.h>

#include "VoIniContent.h"
#include "VoIniEncoding.h"

#include <base/VoErrorHandler.h>
#include <win/VoFile.h>

#include <algorithm>

namespace
{
constexpr const wchar_t* kUtilFileIOSource = L"..\\..\\source\\win\\VoUtilFileIO";

[[nodiscard]] std::unique_ptr<CVoIniContent> ReadContent(std::string bytes,
                                                         std::optional<EVoTextEncoding> encoding = std::nullopt)
{
    if (bytes.size() > kMaximumFileSize)
        throw CVoHResultException(HResultFromWin32(ERROR_FILE_TOO_LARGE));
    auto content = std::make_unique<CVoIniContent>();
    content->Read(std::move(bytes), encoding);
    return content;
}
} // namespace

CVoIniFileIO::CVoIniFileIO() : m_content(std::make_unique<CVoIniContent>()) {}
CVoIniFileIO::CVoIniFileIO(CVoIniFileIO&& other) noexcept = default;
CVoIniFileIO& CVoIniFileIO::operator=(CVoIniFileIO&& other) noexcept = default;
CVoIniFileIO::~CVoIniFileIO() = default;

HRESULT CVoIniFileIO::Open(CVoTextView path, bool mayBeMissing) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::Open" };
    const auto body = [&]() -> HRESULT
    {
        std::wstring fullPath = VoGetFullPath(path);
        std::string bytes;
        // Ask first: a file that may be missing must not leave a report.
        const bool isMissing = mayBeMissing && ::GetFileAttributesW(fullPath.c_str()) == INVALID_FILE_ATTRIBUTES &&
                               ::GetLastError() == ERROR_FILE_NOT_FOUND;
        if (!isMissing)
            if (const HRESULT hr = VoReadFile(fullPath, bytes); FAILED(hr))
                return report(41, hr);
        m_content = ReadContent(std::move(bytes));
        m_path = std::move(fullPath);
        m_isModified = false;
        return S_OK;
    };
    return report.Guard(49, body);
}

HRESULT CVoIniFileIO::Parse(CVoBytesView bytes) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::Parse" };
    const auto body = [&]() -> HRESULT
    {
        m_content = ReadContent(std::string(bytes));
        m_isModified = true;
        return S_OK;
    };
    return report.Guard(61, body);
}

HRESULT CVoIniFileIO::GetBytes(std::string& bytes) const noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::GetBytes" };
    const auto body = [&]() -> HRESULT
    {
        std::string rendered = m_content->Render();
        // ANSI text can look like another encoding after a change: the line that prevented it may have been removed.
        const EVoTextEncoding detected = VoIniEncoding::Detect(rendered);
        const bool isPlain = detected == EVoTextEncoding::Utf8 && std::all_of(rendered.begin(), rendered.end(), [](char c)
        { return static_cast<signed char>(c) >= 0; });
        if (detected != Encoding() && !(isPlain && Encoding() == EVoTextEncoding::Ansi))
            return report(75, HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
        bytes = std::move(rendered);
        return S_OK;
    };
    return report.Guard(81, body);
}

HRESULT CVoIniFileIO::Save() noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::Save" };
    if (!m_isModified)
        return S_FALSE;
    if (m_path.empty())
        return report(90, HResultFromWin32(ERROR_INVALID_NAME));
    const HRESULT hr = WriteTo(m_path);
    return FAILED(hr) ? report(92, hr) : S_OK;
}

HRESULT CVoIniFileIO::SaveAs(CVoTextView path) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::SaveAs" };
    const auto body = [&]() -> HRESULT
    {
        std::wstring fullPath = VoGetFullPath(path);
        if (const HRESULT hr = WriteTo(fullPath); FAILED(hr))
            return report(101, hr);
        m_path = std::move(fullPath);
        return S_OK;
    };
    return report.Guard(107, body);
}

HRESULT CVoIniFileIO::WriteTo(const std::wstring& path) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::WriteTo" };
    std::string bytes;
    if (const HRESULT hr = GetBytes(bytes); FAILED(hr))
        return report(115, hr);
    CVoFileReplacement replacement;
    if (const HRESULT hr = replacement.Write(path, bytes); FAILED(hr))
        return report(118, hr);
    if (const HRESULT hr = replacement.Commit(); FAILED(hr))
        return report(120, hr);
    m_isModified = false;
    return S_OK;
}

EVoTextEncoding CVoIniFileIO::Encoding() const noexcept
{
    return m_content->Encoding();
}

size_t CVoIniFileIO::Size() const noexcept
{
    return m_content->Size();
}

HRESULT CVoIniFileIO::SetEncoding(EVoTextEncoding encoding) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::SetEncoding" };
    const auto body = [&]() -> HRESULT
    {
        if (encoding < EVoTextEncoding::Ansi || encoding > EVoTextEncoding::Utf16BigEndian)
            return report(133, E_INVALIDARG);
        if (encoding == Encoding())
            return S_OK;
        m_content = ReadContent(m_content->RenderAs(encoding), encoding);
        m_isModified = true;
        return S_OK;
    };
    return report.Guard(142, body);
}

HRESULT CVoIniFileIO::GetSectionNames(std::vector<std::wstring_view>& names) const noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::GetSectionNames" };
    const auto body = [&]() -> HRESULT
    {
        names = m_content->SectionNames();
        return S_OK;
    };
    return report.Guard(153, body);
}

bool CVoIniFileIO::HasSection(CVoTextView section) const
{
    return m_content->FindSection(section) != CVoNameIndex::kNone;
}

HRESULT CVoIniFileIO::GetSection(CVoTextView section, std::vector<CVoIniEntry>& entries) const noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::GetSection" };
    const auto body = [&]() -> HRESULT
    {
        const UINT32 found = m_content->FindSection(section);
        if (found == CVoNameIndex::kNone)
            return report(167, HResultFromWin32(ERROR_NOT_FOUND));
        m_content->GetEntries(found, entries);
        return S_OK;
    };
    return report.Guard(173, body);
}

std::optional<std::wstring_view> CVoIniFileIO::FindValue(CVoTextView section, CVoTextView key) const
{
    const UINT32 found = m_content->FindSection(section);
    if (found == CVoNameIndex::kNone)
        return std::nullopt;
    return m_content->FindValue(found, key);
}

HRESULT CVoIniFileIO::SetValue(CVoTextView section, CVoTextView key, CVoTextView value) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::SetValue" };
    const auto body = [&]() -> HRESULT
    {
        if (m_content->SetValue(section, key, value))
            m_isModified = true;
        return S_OK;
    };
    return report.Guard(193, body);
}

HRESULT CVoIniFileIO::AddValue(CVoTextView section, CVoTextView key, CVoTextView value) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::AddValue" };
    const auto body = [&]() -> HRESULT
    {
        m_content->AddValue(section, key, value);
        m_isModified = true;
        return S_OK;
    };
    return report.Guard(205, body);
}

HRESULT CVoIniFileIO::RemoveValue(CVoTextView section, CVoTextView key) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::RemoveValue" };
    const auto body = [&]() -> HRESULT
    {
        const UINT32 found = m_content->FindSection(section);
        if (found == CVoNameIndex::kNone || !m_content->RemoveValue(found, key))
            return S_FALSE;
        m_isModified = true;
        return S_OK;
    };
    return report.Guard(219, body);
}

HRESULT CVoIniFileIO::ClearSection(CVoTextView section) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::ClearSection" };
    const auto body = [&]() -> HRESULT
    {
        const UINT32 found = m_content->FindSection(section);
        if (found == CVoNameIndex::kNone || !m_content->ClearSection(found))
            return S_FALSE;
        m_isModified = true;
        return S_OK;
    };
    return report.Guard(233, body);
}

HRESULT CVoIniFileIO::RemoveSection(CVoTextView section) noexcept
{
    constexpr CVoReporter report{ kUtilFileIOSource, L"CVoIniFileIO::RemoveSection" };
    const auto body = [&]() -> HRESULT
    {
        const UINT32 found = m_content->FindSection(section);
        if (found == CVoNameIndex::kNone)
            return S_FALSE;
        m_content->RemoveSection(found);
        m_isModified = true;
        return S_OK;
    };
    return report.Guard(248, body);
}
