// Where the body of a response goes while it arrives: into memory, or into the sink of its request. The transports fill one for
// each response, piece by piece.
#pragma once

#include "VoContentDecoder.h"

#include <VoHTTPMessage.h>

#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

// Bytes of an unknown number. They stand in blocks, so that they are copied once at most, and not twice in memory while they
// grow.
class CVoByteBlocks
{
public:
    // The next bytes will be so many, probably. Throws std::bad_alloc.
    void Reserve(size_t count);
    void Append(std::span<const BYTE> bytes); // throws std::bad_alloc
    // Takes bytes over, in the place of all others.
    void Adopt(std::vector<BYTE>&& bytes) noexcept
    {
        m_full.clear();
        m_fullSize = 0;
        m_last = std::move(bytes);
    }
    // All bytes in one block. Throws std::bad_alloc.
    std::vector<BYTE>& Join();

private:
    std::vector<std::vector<BYTE>> m_full;
    std::vector<BYTE> m_last;
    size_t m_fullSize = 0; // bytes of m_full
};

// Finds the "&&" behind parameter text that comes in pieces, as CVoBinaryDataParser::Parse does.
class CVoParameterTextEnd
{
public:
    // How many bytes of the piece belong to the text, the "&&" included.
    [[nodiscard]] size_t Take(std::span<const BYTE> piece) noexcept;
    [[nodiscard]] bool IsFound() const noexcept { return m_isFound; }

private:
    bool m_isFound = false;
    BYTE m_before = 0; // '$' or '&' when it makes the next byte special
};

class CVoBodyReceiver
{
public:
    using EResponseKind = CVoHTTPMessage::EResponseKind;

    // Receives into memory. `limit`: bytes that the body may have; 0: any number.
    explicit CVoBodyReceiver(UINT64 limit = 0) noexcept : m_limit(limit) {}

    // Gives the body to a sink; of `Parameters` only the payload, while the text in front of it, with its "&&", stays in
    // memory. The beginning of the body goes to the data log of `message`. Both must outlive the calls of Take.
    void SetSink(const CVoHTTPMessage& message, IVoResponseSink& sink, EResponseKind kind) noexcept;
    // Has Take and Finish check a body that is handed out as it came: its length, and whether its coded stream is whole.
    // Nothing, null: not checked.
    void SetCheck(std::optional<UINT64> length, std::unique_ptr<CVoContentDecoder> decoder) noexcept;

    // The announced length, which is only a promise. Throws std::bad_alloc.
    void Expect(UINT64 length);
    // Takes the next bytes. kErrorResponseLimit, the sink's failure, E_FAIL for a malformed coded stream; reported. After a
    // failure nothing more must be given. Throws std::bad_alloc.
    [[nodiscard]] HRESULT Take(std::span<const BYTE> bytes);
    // The same for a whole body, which memory takes over.
    [[nodiscard]] HRESULT TakeWhole(std::vector<BYTE>&& body);
    // The body has ended. E_FAIL, not reported: it is not whole.
    [[nodiscard]] HRESULT Finish() const noexcept;

    [[nodiscard]] bool HasSink() const noexcept { return m_sink != nullptr; }
    // Bytes that were taken.
    [[nodiscard]] UINT64 Length() const noexcept { return m_length; }
    // Whether the sink was given bytes.
    [[nodiscard]] bool HasWritten() const noexcept { return m_hasWritten; }
    // Why the receiver takes no more: kErrorResponseLimit or the sink's failure; S_OK before.
    [[nodiscard]] HRESULT Refusal() const noexcept { return m_refusal; }
    [[nodiscard]] bool HasSinkFailed() const noexcept { return FAILED(m_refusal) && m_refusedBySink; }
    // Whether the data log has as much of the body as it is to have.
    [[nodiscard]] bool IsLogged() const noexcept { return m_logged >= kLoggedBytes; }
    // What is in memory; valid until the next call. Throws std::bad_alloc.
    [[nodiscard]] std::span<const BYTE> Bytes() { return m_bytes.Join(); }
    // Moves it out. Throws std::bad_alloc.
    [[nodiscard]] std::vector<BYTE> TakeBytes() { return std::exchange(m_bytes.Join(), {}); }

    // The most bytes of a body given to a sink that are kept in the data log.
    static constexpr UINT64 kLoggedBytes = UINT64{ 64 } * 1024;

private:
    [[nodiscard]] HRESULT Check(std::span<const BYTE> bytes);
    [[nodiscard]] HRESULT GiveToSink(std::span<const BYTE> bytes);

    UINT64 m_limit = 0;
    UINT64 m_length = 0;
    CVoByteBlocks m_bytes;
    HRESULT m_refusal = S_OK;
    bool m_refusedBySink = false;

    const CVoHTTPMessage* m_message = nullptr;
    IVoResponseSink* m_sink = nullptr;         // null: memory
    std::optional<CVoParameterTextEnd> m_text; // of parameters in front of the payload
    UINT64 m_logged = 0;
    bool m_hasWritten = false;

    std::optional<UINT64> m_announced;
    std::unique_ptr<CVoContentDecoder> m_decoder;
};
