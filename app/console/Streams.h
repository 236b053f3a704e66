// The byte streams of a command. Commands do not use the process's own streams, so that a batch can run them on memory.
#pragma once

#include <base/VoPlatform.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

class IByteSource
{
public:
    virtual ~IByteSource() = default;
    // Reads at most `size` bytes; 0 at the end. Throws CVoHResultException when the read fails.
    [[nodiscard]] virtual size_t Read(BYTE* buffer, size_t size) = 0;
};

class IByteSink
{
public:
    virtual ~IByteSink() = default;
    // Writes all bytes at once, without a buffer. Throws CVoHResultException when the write fails.
    virtual void Write(std::span<const BYTE> bytes) = 0;
    [[nodiscard]] virtual bool IsTerminal() const noexcept { return false; }

    void Write(std::string_view text);
};

struct CStreams
{
    IByteSource& in;
    IByteSink& out;
    IByteSink& err;
};

// Reads from an open handle (file, pipe, console) that it does not own. A null handle has no bytes.
class CHandleSource : public IByteSource
{
public:
    explicit CHandleSource(HANDLE handle) noexcept : m_handle(handle) {}
    size_t Read(BYTE* buffer, size_t size) override;

private:
    HANDLE m_handle;
};

// Writes to an open handle that it does not own. Writes to a null handle are dropped: the program has no console.
class CHandleSink : public IByteSink
{
public:
    explicit CHandleSink(HANDLE handle) noexcept;
    void Write(std::span<const BYTE> bytes) override;
    using IByteSink::Write;
    [[nodiscard]] bool IsTerminal() const noexcept override { return m_terminal; }

private:
    HANDLE m_handle;
    bool m_terminal = false;
};

class CMemorySource : public IByteSource
{
public:
    explicit CMemorySource(std::vector<BYTE> bytes) noexcept : m_bytes(std::move(bytes)) {}
    size_t Read(BYTE* buffer, size_t size) override;

private:
    std::vector<BYTE> m_bytes;
    size_t m_position = 0;
};

class CMemorySink : public IByteSink
{
public:
    void Write(std::span<const BYTE> bytes) override { m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end()); }
    using IByteSink::Write;
    [[nodiscard]] const std::vector<BYTE>& Bytes() const noexcept { return m_bytes; }

private:
    std::vector<BYTE> m_bytes;
};

[[nodiscard]] std::vector<BYTE> ReadAll(IByteSource& source);

// Splits a source into lines as they arrive. A line ends with "\n" or "\r\n". Text behind the last line end is a line, too.
class CLineReader
{
public:
    explicit CLineReader(IByteSource& source) noexcept : m_source(source) {}
    [[nodiscard]] bool Next(std::string& line);

private:
    IByteSource& m_source;
    std::string m_pending;
    size_t m_begin = 0;
    bool m_ended = false;
};
