// Builds request bodies; see VoHTTPContent.h.
#include "VoHTTPContent.h"

#include <base/VoUtils.h>

#include <algorithm>
#include <limits>
#include <memory>

namespace
{
constexpr const wchar_t* kSource = L"..\\source\\VoHTTPContent";

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

HRESULT VoCreateContent(const CVoBinaryDataParser& parameters, CVoHTTPMessage::EContentKind kind, bool utf8,
                        std::wstring_view key, std::wstring_view signatureParameterName, const CVoReporter& report,
                        const CVoContentTracePoints& points, CVoHTTPContent& content)
{
    const bool hasPayload = !parameters.Payload().empty();
    CVoHTTPContent made;
    switch (kind)
    {
    case CVoHTTPMessage::EContentKind::Raw:
        if (const HRESULT hr = parameters.GetMessageData(made.body.PutLength(), made.body.PutBytes(), false, utf8); FAILED(hr))
            return report(points.raw, hr);
        made.header = VoFormat(L"Content-Type: application/octet-stream%ls", CharsetSuffix(utf8));
        break;

    case CVoHTTPMessage::EContentKind::Multipart:
    {
        std::wstring boundary;
        if (const HRESULT hr = parameters.GetFormMessageData(made.body.PutLength(), made.body.PutBytes(), boundary, utf8);
            FAILED(hr))
            return report(points.multipart, hr);
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
        if (const HRESULT hr = CreateFormBody(parameters, utf8, made.body); FAILED(hr))
            return report(isSigned ? points.signedForm : points.form, hr);
        if (isSigned)
            if (const HRESULT hr = CVoHTTPMessage::SignMessage(true, made.body, key, signatureParameterName); FAILED(hr))
                return report(points.sign, hr);
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
    content = std::move(made);
    return S_OK;
}

HRESULT VoCreateMultipleContent(std::span<const CVoBinaryDataParser> messages, bool utf8, CVoHTTPContent& content)
{
    constexpr CVoReporter report{ kSource, L"VoCreateMultipleContent" };
    std::vector<CVoByteBuffer> parts(messages.size());
    size_t total = 0;
    for (size_t i = 0; i < messages.size(); ++i)
    {
        const HRESULT hr = messages[i].GetMessageDataWithSizePrefix(parts[i].PutLength(), parts[i].PutBytes(), false, utf8);
        if (FAILED(hr))
            return report(120, hr);
        total += parts[i].Length();
    }
    if (total > std::numeric_limits<UINT32>::max())
        return report(125, E_INVALIDARG);

    CVoHTTPContent made;
    if (parts.size() == 1)
        made.body = std::move(parts.front());
    else if (total > 0)
    {
        auto body = std::make_unique_for_overwrite<BYTE[]>(total);
        BYTE* end = body.get();
        for (CVoByteBuffer& part : parts)
        {
            end = std::copy_n(part.Data(), part.Length(), end);
            part.Reset();
        }
        made.body = CVoByteBuffer(std::move(body), static_cast<UINT32>(total));
    }
    made.header = VoFormat(L"Content-Type: application/octet-stream%ls", CharsetSuffix(utf8));
    content = std::move(made);
    return S_OK;
}
