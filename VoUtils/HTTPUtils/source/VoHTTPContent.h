// Makes the body of a request, with its Content-Type header line, from parameters and payload. Used by the transport core.
#pragma once

#include <VoHTTPMessage.h>

#include <base/VoErrorHandler.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

// The bytes of a body: pieces that are sent one after the other, so that a large payload is sent from where it is. It owns none
// of them.
class CVoBodyPieces
{
public:
    // Throws std::bad_alloc.
    void Add(std::span<const BYTE> piece)
    {
        if (piece.empty())
            return;
        m_pieces.push_back(piece);
        m_length += piece.size();
    }
    [[nodiscard]] size_t Length() const noexcept { return m_length; }
    [[nodiscard]] std::span<const std::span<const BYTE>> Pieces() const noexcept { return m_pieces; }

private:
    std::vector<std::span<const BYTE>> m_pieces; // none is empty
    size_t m_length = 0;
};

// Reads a body from its beginning.
class CVoBodyReader
{
public:
    CVoBodyReader() = default;
    explicit CVoBodyReader(const CVoBodyPieces& body) noexcept : m_all(body.Pieces()), m_rest(m_all) {}

    // Begins again.
    void Rewind() noexcept
    {
        m_rest = m_all;
        m_position = 0;
    }
    // Copies the next bytes. Returns how many; fewer than the buffer takes at the end only.
    size_t Read(std::span<BYTE> buffer);
    // As many bytes as `buffer` takes: where they are, when they lie in one piece, else copied to `buffer`. Fewer at the end;
    // none behind it.
    [[nodiscard]] std::span<const BYTE> Next(std::span<BYTE> buffer);

private:
    // Goes on by bytes of the first piece.
    void Advance(size_t count) noexcept;

    std::span<const std::span<const BYTE>> m_all;
    std::span<const std::span<const BYTE>> m_rest;
    size_t m_position = 0; // in the first piece of m_rest
};

struct CVoHTTPContent
{
    CVoBodyPieces body;             // in the following, and in the payloads of the caller's messages
    std::vector<std::string> texts; // not changed any more once the body refers to it
    CVoPayload::CJoined joined;     // in the caller's message
    CVoByteBuffer form;
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
// the given numbers. `content` refers to the payload of `parameters`; it is untouched on failure. Throws std::bad_alloc.
[[nodiscard]] HRESULT VoCreateContent(const CVoBinaryDataParser& parameters, CVoHTTPMessage::EContentKind kind, bool utf8,
                                      std::wstring_view key, std::wstring_view signatureParameterName,
                                      const CVoReporter& report, const CVoContentTracePoints& points, CVoHTTPContent& content);

// The body of SendMultipleMessages: the messages one after the other, each behind its length. E_INVALIDARG when they are longer
// than 4 GB together. `content` refers to the payloads of the messages; it is untouched on failure. Throws std::bad_alloc.
[[nodiscard]] HRESULT VoCreateMultipleContent(std::span<const CVoBinaryDataParser> messages, bool utf8,
                                              CVoHTTPContent& content);
