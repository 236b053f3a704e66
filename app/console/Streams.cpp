// Byte streams on handles and in memory.
#include "Streams.h"

#include <base/VoHResult.h>
#include <base/VoText.h>

#include <algorithm>
#include <cstring>

namespace
{
// Large, for files. A read from a pipe returns the bytes that are there.
constexpr size_t kReadBlock = size_t{ 1 } << 20;
// Files are written in large blocks. Consoles refuse more than 64 KiB in one write.
constexpr size_t kWriteBlock = size_t{ 64 } << 20;
constexpr size_t kTerminalWriteBlock = size_t{ 16 } << 10;
} // namespace

void IByteSink::Write(std::string_view text)
{
    Write(VoBytesOf(text));
}

size_t CHandleSource::Read(BYTE* buffer, size_t size)
{
    if (!m_handle || m_handle == INVALID_HANDLE_VALUE)
        return 0;
    DWORD read = 0;
    if (::ReadFile(m_handle, buffer, static_cast<DWORD>(std::min(size, kWriteBlock)), &read, nullptr))
        return read;
    // The writer closed the pipe: the normal end of a pipeline's input.
    const DWORD error = ::GetLastError();
    if (error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF)
        return 0;
    throw CVoHResultException(HResultFromWin32(error));
}

CHandleSink::CHandleSink(HANDLE handle) noexcept : m_handle(handle)
{
    DWORD mode = 0;
    m_terminal = handle && handle != INVALID_HANDLE_VALUE && ::GetConsoleMode(handle, &mode);
}

void CHandleSink::Write(std::span<const BYTE> bytes)
{
    if (!m_handle || m_handle == INVALID_HANDLE_VALUE)
        return;
    const size_t block = m_terminal ? kTerminalWriteBlock : kWriteBlock;
    while (!bytes.empty())
    {
        DWORD written = 0;
        if (!::WriteFile(m_handle, bytes.data(), static_cast<DWORD>(std::min(bytes.size(), block)), &written, nullptr))
            throw CVoHResultException(HResultFromLastError());
        // A pipe that does not wait and is full takes nothing, and that is no error of the call.
        if (written == 0)
            throw CVoHResultException(HResultFromWin32(ERROR_WRITE_FAULT));
        bytes = bytes.subspan(written);
    }
}

size_t CMemorySource::Read(BYTE* buffer, size_t size)
{
    const size_t count = std::min(size, m_bytes.size() - m_position);
    if (count != 0)
        std::memcpy(buffer, m_bytes.data() + m_position, count);
    m_position += count;
    return count;
}

std::vector<BYTE> ReadAll(IByteSource& source)
{
    std::vector<BYTE> bytes;
    size_t filled = 0;
    for (;;)
    {
        if (bytes.size() - filled < kReadBlock / 16)
            bytes.resize(bytes.size() + std::max(kReadBlock, bytes.size() / 2));
        const size_t read = source.Read(bytes.data() + filled, bytes.size() - filled);
        if (read == 0)
            break;
        filled += read;
    }
    bytes.resize(filled);
    return bytes;
}

bool CLineReader::Next(std::string& line)
{
    size_t searchFrom = m_begin;
    for (;;)
    {
        if (const size_t end = m_pending.find('\n', searchFrom); end != std::string::npos)
        {
            line.assign(m_pending, m_begin, end - m_begin);
            m_begin = end + 1;
            break;
        }
        if (m_ended)
        {
            if (m_begin == m_pending.size())
                return false;
            line.assign(m_pending, m_begin);
            m_begin = m_pending.size();
            break;
        }
        m_pending.erase(0, m_begin);
        m_begin = 0;
        searchFrom = m_pending.size();
        m_pending.resize(searchFrom + kReadBlock);
        const size_t read = m_source.Read(reinterpret_cast<BYTE*>(m_pending.data()) + searchFrom, kReadBlock);
        m_pending.resize(searchFrom + read);
        m_ended = read == 0;
    }
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return true;
}
