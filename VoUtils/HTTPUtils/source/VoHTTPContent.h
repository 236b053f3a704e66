// Makes the body of a request, with its Content-Type header line, from parameters and payload. Used by the transport core.
#pragma once

#include <VoHTTPMessage.h>

#include <base/VoErrorHandler.h>

#include <span>
#include <string>
#include <string_view>

struct CVoHTTPContent
{
    CVoByteBuffer body;
    std::wstring header; // "Content-Type: ...", or "Content-Type:" without a value when there is no body
};

// Whether a header line has a value. A line without one is not sent.
[[nodiscard]] inline bool VoHasHeaderValue(std::wstring_view header) noexcept
{
    return !header.empty() && !header.ends_with(L':');
}

// The trace points of VoCreateContent. Each transport has its own numbers.
struct CVoContentTracePoints
{
    int raw;           // kind 0 could not be built
    int multipart;     // kind 1 could not be built
    int formPayload;   // kind 2 with a payload
    int form;          // kind 2 could not be built
    int signedKey;     // kind 3 without a key
    int signedName;    // kind 3 without a parameter name
    int signedPayload; // kind 3 with a payload
    int signedForm;    // kind 3 could not be built
    int sign;          // kind 3 could not be signed
    int emptyPayload;  // kind 4 with a payload
    int unknownKind;   // any other kind
};

// The body of SendMessage; see CVoHTTPMessage::SendMessage for arguments and codes. Failures are reported through `report` at
// the given numbers. `content` is untouched on failure. Throws std::bad_alloc.
[[nodiscard]] HRESULT VoCreateContent(const CVoBinaryDataParser& parameters, CVoHTTPMessage::EContentKind kind, bool utf8,
                                      std::wstring_view key, std::wstring_view signatureParameterName,
                                      const CVoReporter& report, const CVoContentTracePoints& points, CVoHTTPContent& content);

// The body of SendMultipleMessages: the messages one after the other, each behind its length. E_INVALIDARG when they are longer
// than 4 GB together. `content` is untouched on failure. Throws std::bad_alloc.
[[nodiscard]] HRESULT VoCreateMultipleContent(std::span<const CVoBinaryDataParser> messages, bool utf8,
                                              CVoHTTPContent& content);
