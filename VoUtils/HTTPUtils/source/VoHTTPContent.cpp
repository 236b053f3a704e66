// Builds request bodies; see VoHTTPContent.h.
#include "VoHTTPContent.h"

#include <base/VoUtils.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace
{
constexpr const wchar_t* kHTTPContentSource = L"..\\source\\VoHTTPContent";

constexpr size_t kMaximumBody = std::numeric_limits<UINT32>::max(); // the services take no more
constexpr HRESULT kTooLong = HResultFromWin32(ERROR_ARITHMETIC_OVERFLOW);

const wchar_t* CharsetSuffix(bool utf8) noexcept
{
    return utf8 ? L"; charset=UTF-8" : L"";
}

// A form's body: every value URL-encoded, then the parameter text as bytes.
HRESULT CreateFormBody(const CVoDataParser& parameters, bool utf8, CVoByteBuffer& body)
{
    CVoBinaryDataParser encoded;
    for (size_t i = 0; i < parameters.GetCount(); ++i)
    {
        const CParamRec& parameter = parameters.GetAt(i);
        if (const HRESULT hr = encoded.AddParam(parameter.Name(), std::wstring_view(parameter.Value())); FAILED(hr))
            return hr;
    }
    if (const HRESULT hr = encoded.ConvertParamValuesToUTF8URLEncodedString(utf8); FAILED(hr))
        return hr;
    return encoded.GetParamData(utf8, body.PutLength(), body.PutBytes());
}
} // namespace

size_t CVoBodyReader::Read(std::span<BYTE> buffer)
{
    size_t copied = 0;
    while (copied < buffer.size() && !m_rest.empty())
    {
        const std::span<const BYTE> piece = m_rest.front().subspan(m_position);
        const size_t count = std::min(piece.size(), buffer.size() - copied);
        std::memcpy(buffer.data() + copied, piece.data(), count);
        copied += count;
        Advance(count);
    }
    return copied;
}

std::span<const BYTE> CVoBodyReader::Next(std::span<BYTE> buffer)
{
    if (m_rest.empty())
        return {};
    const std::span<const BYTE> piece = m_rest.front().subspan(m_position);
    if (piece.size() < buffer.size() && m_rest.size() > 1)
        return buffer.first(Read(buffer));
    const std::span<const BYTE> next = piece.first(std::min(piece.size(), buffer.size()));
    Advance(next.size());
    return next;
}

void CVoBodyReader::Advance(size_t count) noexcept
{
    m_position += count;
    if (m_position != m_rest.front().size())
        return;
    m_rest = m_rest.subspan(1);
    m_position = 0;
}

HRESULT VoCreateContent(const CVoBinaryDataParser& parameters, CVoHTTPMessage::EContentKind kind, bool utf8,
                        std::wstring_view key, std::wstring_view signatureParameterName, const CVoReporter& report,
                        const CVoContentTracePoints& points, CVoHTTPContent& content)
{
    const bool hasPayload = !parameters.Payload().empty();
    CVoHTTPContent made;
    switch (kind)
    {
    case CVoHTTPMessage::EContentKind::Raw:
        made.texts.resize(1);
        if (const HRESULT hr = parameters.GetMessageHead(false, false, utf8, made.texts[0]); FAILED(hr))
            return report(points.raw, hr);
        made.joined = parameters.JoinPayload(made.texts[0]);
        made.body.Add(made.joined.Bytes());
        if (made.joined.Bytes().empty())
        {
            made.body.Add(VoBytesOf(made.texts[0]));
            made.body.Add(parameters.Payload());
        }
        made.header = VoFormat(L"Content-Type: application/octet-stream%ls", CharsetSuffix(utf8));
        break;

    case CVoHTTPMessage::EContentKind::Multipart:
    {
        std::wstring boundary;
        bool sendsPayload = false;
        made.texts.resize(2);
        if (const HRESULT hr = parameters.GetFormMessageEnds(utf8, made.texts[0], sendsPayload, made.texts[1], boundary);
            FAILED(hr))
            return report(points.multipart, hr);
        made.body.Add(VoBytesOf(made.texts[0]));
        if (sendsPayload)
            made.body.Add(parameters.Payload());
        made.body.Add(VoBytesOf(made.texts[1]));
        made.header = VoFormat(L"Content-Type: multipart/form-data%ls; boundary=%ls", CharsetSuffix(utf8), boundary.c_str());
        break;
    }

    case CVoHTTPMessage::EContentKind::Form:
    case CVoHTTPMessage::EContentKind::SignedForm:
    {
        const bool isSigned = kind == CVoHTTPMessage::EContentKind::SignedForm;
        if (isSigned && key.empty())
            return report(points.signedKey, E_INVALIDARG);
        if (isSigned && signatureParameterName.empty())
            return report(points.signedName, E_INVALIDARG);
        if (hasPayload)
            return report(isSigned ? points.signedPayload : points.formPayload, E_NOTIMPL);
        if (const HRESULT hr = CreateFormBody(parameters, utf8, made.form); FAILED(hr))
            return report(isSigned ? points.signedForm : points.form, hr);
        if (isSigned)
            if (const HRESULT hr = CVoHTTPMessage::SignMessage(true, made.form, key, signatureParameterName); FAILED(hr))
                return report(points.sign, hr);
        made.body.Add(made.form.Bytes());
        made.header = VoFormat(L"Content-Type: application/x-www-form-urlencoded%ls", CharsetSuffix(utf8));
        break;
    }

    case CVoHTTPMessage::EContentKind::Empty:
        if (hasPayload)
            return report(points.emptyPayload, E_NOTIMPL);
        made.header = L"Content-Type:";
        break;

    default:
        return report(points.unknownKind, E_NOTIMPL);
    }
    if (made.body.Length() > kMaximumBody)
        return report(kind == CVoHTTPMessage::EContentKind::Multipart ? points.multipart : points.raw, kTooLong);
    content = std::move(made);
    return S_OK;
}

HRESULT VoCreateMultipleContent(std::span<const CVoBinaryDataParser> messages, bool utf8, CVoHTTPContent& content)
{
    constexpr CVoReporter report{ kHTTPContentSource, L"VoCreateMultipleContent" };
    CVoHTTPContent made;
    made.texts.resize(messages.size());
    for (size_t i = 0; i < messages.size(); ++i)
    {
        if (const HRESULT hr = messages[i].GetMessageHead(true, false, utf8, made.texts[i]); FAILED(hr))
            return report(120, hr);
        if (made.texts[i].size() + messages[i].Payload().size() > kMaximumBody)
            return report(122, kTooLong);
        made.body.Add(VoBytesOf(made.texts[i]));
        made.body.Add(messages[i].Payload());
    }
    if (made.body.Length() > kMaximumBody)
        return report(125, E_INVALIDARG);
    made.header = VoFormat(L"Content-Type: application/octet-stream%ls", CharsetSuffix(utf8));
    content = std::move(made);
    return S_OK;
}
