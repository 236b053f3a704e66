// Takes the body of a response into memory or into a sink; see VoBodyReceiver.h.
#include "VoBodyReceiver.h"

#include "VoContentLength.h"

#include <VoResponseSink.h>

#include <base/VoErrorHandler.h>

#include <algorithm>
#include <iterator>

namespace
{
constexpr const wchar_t* kBodyReceiverSource = L"..\\source\\VoBodyReceiver";

constexpr size_t kFirstBlock = size_t{ 16 } * 1024;
constexpr size_t kLargestBlock = size_t{ 4 } * 1024 * 1024;
} // namespace

// Blocks of bytes

void CVoByteBlocks::Reserve(size_t count)
{
    if (m_full.empty() && m_last.empty())
        m_last.reserve(count);
}

void CVoByteBlocks::Append(std::span<const BYTE> bytes)
{
    while (!bytes.empty())
    {
        if (m_last.size() == m_last.capacity())
        {
            // As much again as there is, so that few blocks hold a large body.
            const size_t count = m_fullSize + m_last.size();
            std::vector<BYTE> next;
            next.reserve(std::max(std::clamp(count, kFirstBlock, kLargestBlock), count == 0 ? bytes.size() : 0));
            if (!m_last.empty())
            {
                m_full.push_back(std::move(m_last));
                m_fullSize = count;
            }
            m_last = std::move(next);
        }
        const std::span<const BYTE> piece = bytes.first(std::min(bytes.size(), m_last.capacity() - m_last.size()));
        m_last.insert(m_last.end(), piece.begin(), piece.end());
        bytes = bytes.subspan(piece.size());
    }
}

std::vector<BYTE>& CVoByteBlocks::Join()
{
    if (m_full.empty())
        return m_last;
    std::vector<BYTE> joined;
    joined.reserve(m_fullSize + m_last.size());
    const auto append = [&](std::vector<BYTE>& block)
    {
        joined.insert(joined.end(), block.begin(), block.end());
        block = {}; // now, so that memory in use holds each byte once
    };
    for (std::vector<BYTE>& block : m_full)
        append(block);
    append(m_last);
    Adopt(std::move(joined));
    return m_last;
}

size_t CVoParameterTextEnd::Take(std::span<const BYTE> piece) noexcept
{
    for (size_t i = 0; i < piece.size(); ++i)
    {
        const BYTE before = std::exchange(m_before, BYTE{ 0 });
        if (before == '$')
            continue; // an ordinary byte
        if (before == '&' && piece[i] == '&')
        {
            m_isFound = true;
            return i + 1;
        }
        if (piece[i] == '$' || piece[i] == '&')
            m_before = piece[i];
    }
    return piece.size();
}

// The body of a response

void CVoBodyReceiver::SetSink(const CVoHTTPMessage& message, IVoResponseSink& sink, EResponseKind kind) noexcept
{
    m_message = &message;
    m_sink = &sink;
    if (kind == EResponseKind::Parameters)
        m_text.emplace();
}

void CVoBodyReceiver::SetCheck(std::optional<UINT64> length, std::unique_ptr<CVoContentDecoder> decoder) noexcept
{
    m_announced = length;
    m_decoder = std::move(decoder);
}

void CVoBodyReceiver::Expect(UINT64 length)
{
    if (!m_sink)
        m_bytes.Reserve(VoReserveFor(length, m_limit));
}

// Counts the bytes and checks them.
HRESULT CVoBodyReceiver::Check(std::span<const BYTE> bytes)
{
    constexpr CVoReporter report{ kBodyReceiverSource, L"CVoBodyReceiver::Check" };
    if (m_limit != 0 && m_length + bytes.size() > m_limit)
        return m_refusal = report(110, kErrorResponseLimit);
    if (m_decoder)
        if (const HRESULT hr = m_decoder->Decode(bytes, {}); FAILED(hr))
            return report(115, hr);
    m_length += bytes.size();
    return S_OK;
}

HRESULT CVoBodyReceiver::GiveToSink(std::span<const BYTE> bytes)
{
    constexpr CVoReporter report{ kBodyReceiverSource, L"CVoBodyReceiver::GiveToSink" };
    if (m_logged < kLoggedBytes)
    {
        const size_t count = std::min(bytes.size(), static_cast<size_t>(kLoggedBytes - m_logged));
        m_message->WriteDataToLogFile(CVoHTTPMessage::EDataDirection::Read, bytes.data(), static_cast<UINT32>(count));
        m_logged += count;
    }
    if (m_text && !m_text->IsFound())
    {
        const size_t count = m_text->Take(bytes);
        m_bytes.Append(bytes.first(count));
        bytes = bytes.subspan(count);
    }
    if (bytes.empty())
        return S_OK;
    m_hasWritten = true;
    if (const HRESULT hr = m_sink->Write(bytes); FAILED(hr))
    {
        m_refusedBySink = true;
        return m_refusal = report(130, hr);
    }
    return S_OK;
}

HRESULT CVoBodyReceiver::Take(std::span<const BYTE> bytes)
{
    if (bytes.empty())
        return S_OK;
    if (const HRESULT hr = Check(bytes); FAILED(hr))
        return hr;
    if (m_sink)
        return GiveToSink(bytes);
    m_bytes.Append(bytes);
    return S_OK;
}

HRESULT CVoBodyReceiver::TakeWhole(std::vector<BYTE>&& body)
{
    if (m_sink)
        return Take(body);
    if (const HRESULT hr = Check(body); FAILED(hr))
        return hr;
    m_bytes.Adopt(std::move(body));
    return S_OK;
}

HRESULT CVoBodyReceiver::Finish() const noexcept
{
    if (m_announced.value_or(m_length) != m_length)
        return E_FAIL;
    return m_decoder ? m_decoder->Finish() : S_OK;
}
