// CParamRec, how a parser keeps its records, and how it reads and writes parameter text (VoDataParser.h).
#include <base/VoDataParser.h>

#include <base/VoErrorHandler.h>
#include <base/VoText.h>

#include <algorithm>
#include <memory>
#include <new>
#include <span>
#include <utility>

namespace
{
constexpr const wchar_t* kDataParserTextSource = L"..\\..\\source\\base\\VoDataParser";

bool IsReserved(wchar_t character) noexcept
{
    return character == L'$' || character == L'&';
}

// A value without its escapes. One pass gives the same as replacing every "$&" and then every "$$": escapes do not overlap.
std::wstring Unescape(CVoTextView value)
{
    size_t dollar = value.find(L'$');
    std::wstring plain;
    plain.reserve(value.size());
    while (dollar != std::wstring_view::npos)
    {
        const bool isEscape = dollar + 1 < value.size() && IsReserved(value[dollar + 1]);
        plain.append(value.substr(0, dollar));
        plain.push_back(isEscape ? value[dollar + 1] : L'$');
        value.remove_prefix(dollar + (isEscape ? 2 : 1));
        dollar = value.find(L'$');
    }
    return plain.append(value);
}

// The same within the value's memory; returns the new length.
size_t UnescapeInPlace(std::span<wchar_t> value) noexcept
{
    const auto first = std::find(value.begin(), value.end(), L'$');
    auto to = first;
    for (auto from = first; from != value.end(); ++from)
    {
        if (*from == L'$' && from + 1 != value.end() && IsReserved(from[1]))
            ++from;
        *to++ = *from;
    }
    return static_cast<size_t>(to - value.begin());
}

// One pair of parameter text: where it ends (the next "&" that no "$" stands in front of, or the end of the text), and where
// its first "=" stands, from its begin; std::wstring_view::npos for none.
struct CPairEnds
{
    size_t end = 0;
    size_t equals = std::wstring_view::npos;
    bool hasEscapes = false;
};

CPairEnds FindPairEnds(std::wstring_view text, size_t begin) noexcept
{
    CPairEnds ends;
    size_t i = begin;
    for (; i < text.size(); ++i)
    {
        if (text[i] > L'=')
            continue; // most characters
        if (text[i] == L'&')
            break;
        if (text[i] == L'$')
        {
            ends.hasEscapes = true;
            if (++i == text.size())
                break;
        }
        if (text[i] == L'=' && ends.equals == std::wstring_view::npos)
            ends.equals = i - begin;
    }
    ends.end = i;
    return ends;
}
} // namespace

CParamRec::CParamRec(CVoTextView name, CVoTextView value)
{
    PutTexts(std::make_unique<CTexts>(CTexts{ std::wstring(name), std::wstring(value) }));
}

void CParamRec::PutTexts(std::unique_ptr<CTexts> texts) noexcept
{
    m_name = texts->name;
    m_value = texts->value;
    m_own.Reset(std::move(texts));
}

CParamRec::CTexts& CParamRec::Own() const
{
    if (CTexts* const texts = m_own.Get())
        return *texts;
    return m_own.PutFirst(std::make_unique<CTexts>(CTexts{ std::wstring(m_name), std::wstring(m_value) }));
}

void CParamRec::SetValue(std::wstring value)
{
    CTexts& texts = Own();
    texts.value = std::move(value);
    m_value = texts.value;
}

void CParamRec::WipeValue() noexcept
{
    // Where the value stands in the parser's copy of the text, that memory is no constant.
    ::SecureZeroMemory(const_cast<wchar_t*>(m_value.data()), m_value.size() * sizeof(wchar_t));
    if (CTexts* const texts = m_own.Get())
        VoWipe(texts->value);
    m_value = {};
}

HRESULT CParamRec::PutParamString(const wchar_t* text, size_t length) noexcept
{
    constexpr CVoReporter report{ kDataParserTextSource, L"CParamRec::PutParamString" };
    if (!text && length > 0)
        return report(47, E_INVALIDARG);
    const std::wstring_view pair(text, length);
    const size_t equals = pair.find(L'=');
    if (equals == std::wstring_view::npos)
        return report(52, E_FAIL);
    try
    {
        const std::wstring_view name = VoTrim(pair.substr(0, equals));
        PutTexts(std::make_unique<CTexts>(CTexts{ std::wstring(name), Unescape(pair.substr(equals + 1)) }));
        return S_OK;
    }
    catch (...)
    {
        return report(63, VoReportFullArray<wchar_t, wchar_t>());
    }
}

void CParamRec::PutPairInPlace(std::span<wchar_t> pair, size_t equals, bool hasEscapes) noexcept
{
    const std::span<wchar_t> value = pair.subspan(equals + 1);
    m_name = VoTrim(CVoTextView(pair.data(), equals));
    m_value = std::wstring_view(value.data(), hasEscapes ? UnescapeInPlace(value) : value.size());
    m_own.Reset(nullptr);
}

CVoDataParser::CVoDataParser(const CVoDataParser& other)
{
    for (const CParamRec* record : other.m_params)
        if (const HRESULT hr = AddParam(record->NameView(), record->ValueView()); FAILED(hr))
            throw CVoHResultException(hr);
}

CVoDataParser::CVoDataParser(CVoDataParser&& other) noexcept
{
    Swap(other);
}

CVoDataParser& CVoDataParser::operator=(const CVoDataParser& other)
{
    CVoDataParser copy(other);
    Swap(copy);
    return *this;
}

CVoDataParser& CVoDataParser::operator=(CVoDataParser&& other) noexcept
{
    CVoDataParser moved(std::move(other));
    Swap(moved);
    return *this;
}

CVoDataParser::~CVoDataParser() = default;

// One allocation: this, then the records, then the units of the text.
class CVoDataParser::CBlock
{
public:
    [[nodiscard]] static CBlock* Make(size_t records, size_t units)
    {
        static_assert(sizeof(CBlock) % alignof(CParamRec) == 0 && sizeof(CParamRec) % alignof(wchar_t) == 0);
        void* const memory = ::operator new(sizeof(CBlock) + records * sizeof(CParamRec) + units * sizeof(wchar_t));
        auto* const block = new (memory) CBlock(records, units);
        std::uninitialized_value_construct_n(block->Records(), records);
        return block;
    }
    // Iteratively: there may be many.
    static void FreeAll(CBlock* newest) noexcept
    {
        while (newest)
        {
            CBlock* const block = std::exchange(newest, newest->before);
            std::destroy_n(block->Records(), block->size);
            ::operator delete(block);
        }
    }

    [[nodiscard]] CParamRec* Records() noexcept { return reinterpret_cast<CParamRec*>(this + 1); }
    [[nodiscard]] std::span<wchar_t> Units() noexcept { return { reinterpret_cast<wchar_t*>(Records() + size), units }; }

    CBlock* before = nullptr;
    size_t size;     // of the records
    size_t used = 0; // in the list
    size_t units;

private:
    CBlock(size_t records, size_t unitCount) noexcept : size(records), units(unitCount) {}
};

void CVoDataParser::CFreeBlocks::operator()(CBlock* newest) const noexcept
{
    CBlock::FreeAll(newest);
}

void CVoDataParser::AddBlock(size_t records, size_t units)
{
    CBlock* const block = CBlock::Make(records, units);
    block->before = m_blocks.release();
    m_blocks.reset(block);
}

void CVoDataParser::Swap(CVoDataParser& other) noexcept
{
    std::swap(m_params, other.m_params);
    m_blocks.swap(other.m_blocks);
}

void CVoDataParser::RemoveAll() noexcept
{
    m_params.RemoveAll();
    m_blocks.reset();
}

void CVoDataParser::WipeAll() noexcept
{
    for (CParamRec* const record : m_params)
        record->WipeValue();
    // Also values that were changed since.
    for (CBlock* block = m_blocks.get(); block; block = block->before)
        ::SecureZeroMemory(block->Units().data(), block->Units().size_bytes());
    RemoveAll();
}

CParamRec& CVoDataParser::NextRecord()
{
    constexpr size_t kFewest = 8;
    constexpr size_t kMost = 4096;
    if (!m_blocks || m_blocks->used == m_blocks->size)
        AddBlock(m_blocks ? std::clamp(2 * m_blocks->size, kFewest, kMost) : kFewest, 0);
    return m_blocks->Records()[m_blocks->used];
}

HRESULT CVoDataParser::AppendNext() noexcept
{
    // Room for all records of the block at once, then the record itself.
    if (m_blocks->used == 0)
    {
        const size_t count = m_params.GetSize();
        if (const HRESULT hr = m_params.SetSize(count + m_blocks->size); FAILED(hr))
            return hr;
        (void)m_params.SetSize(count);
    }
    if (const HRESULT hr = m_params.Add(&m_blocks->Records()[m_blocks->used]); FAILED(hr))
        return hr;
    ++m_blocks->used;
    return S_OK;
}

HRESULT CVoDataParser::AddParam(CVoTextView name, const CVo2DIDArray& value) noexcept
{
    constexpr CVoReporter report{ kDataParserTextSource, L"CVoDataParser::AddParam" };
    const auto body = [&]() -> HRESULT
    {
        CVoDataParser cells;
        if (const HRESULT hr = cells.AppendCells(name, value); FAILED(hr))
            return report(178, hr);
        const size_t count = GetCount();
        if (const HRESULT hr = m_params.SetSize(count + cells.GetCount()); FAILED(hr))
            return report(181, hr);
        std::copy(cells.m_params.begin(), cells.m_params.end(), m_params.begin() + static_cast<std::ptrdiff_t>(count));
        if (CBlock* oldest = cells.m_blocks.get())
        {
            while (oldest->before)
                oldest = oldest->before;
            oldest->before = m_blocks.release();
            m_blocks = std::move(cells.m_blocks);
        }
        return S_OK;
    };
    return report.Guard(188, body);
}

HRESULT CVoDataParser::KeepText(std::wstring_view text, std::span<wchar_t>& kept) noexcept
{
    constexpr size_t kUsualPair = 16; // characters
    constexpr size_t kMostRecords = 16;
    try
    {
        AddBlock(std::min(text.size() / kUsualPair + 1, kMostRecords), text.size());
    }
    catch (...)
    {
        return VoReportFullArray<wchar_t, wchar_t>();
    }
    kept = m_blocks->Units();
    std::copy(text.begin(), text.end(), kept.begin());
    return S_OK;
}

HRESULT CVoDataParser::ReadParamsFromString(CVoTextView text) noexcept
{
    constexpr CVoReporter report{ kDataParserTextSource, L"CVoDataParser::ReadParamsFromString" };
    const auto body = [&]() -> HRESULT
    {
        if (text.empty())
            return S_OK;
        std::span<wchar_t> kept;
        if (const HRESULT hr = KeepText(text, kept); FAILED(hr))
            return report(442, hr);
        for (size_t begin = 0; begin < text.size();)
        {
            const CPairEnds ends = FindPairEnds(text, begin);
            if (ends.end > begin)
            {
                CParamRec& record = NextRecord();
                if (ends.equals == std::wstring_view::npos)
                    return report(446, record.PutParamString(text.data() + begin, ends.end - begin)); // which refuses it
                record.PutPairInPlace(kept.subspan(begin, ends.end - begin), ends.equals, ends.hasEscapes);
                if (const HRESULT hr = AppendNext(); FAILED(hr))
                    return report(448, hr);
            }
            begin = ends.end + 1;
        }
        return S_OK;
    };
    return report.Guard(457, body);
}

HRESULT CVoDataParser::GetParamsAsString(std::wstring& text) const noexcept
{
    constexpr CVoReporter report{ kDataParserTextSource, L"CVoDataParser::GetParamsAsString" };
    const auto body = [&]() -> HRESULT
    {
        size_t size = GetCount() > 0 ? GetCount() - 1 : 0;
        for (const CParamRec* record : m_params)
        {
            const std::wstring_view value = record->ValueView();
            size += record->NameView().size() + 1 + value.size() +
                    static_cast<size_t>(std::count_if(value.begin(), value.end(), IsReserved));
        }
        std::wstring written(size, L'\0');
        wchar_t* to = written.data();
        for (const CParamRec* record : m_params)
        {
            if (to != written.data())
                *to++ = L'&';
            to = std::copy(record->NameView().begin(), record->NameView().end(), to);
            *to++ = L'=';
            for (const wchar_t character : record->ValueView())
            {
                if (IsReserved(character))
                    *to++ = L'$';
                *to++ = character;
            }
        }
        text = std::move(written);
        return S_OK;
    };
    return report.Guard(489, body);
}
