// Containers of the library: the growable array, and an owner for the byte buffers that operations hand out.
#pragma once

#include <base/VoHResult.h>
#include <base/VoPlatform.h>

#include <limits>
#include <memory>
#include <new>
#include <span>
#include <utility>
#include <vector>

// Owns a byte buffer that an operation handed out through an out pointer and an out length:
//
//     CVoByteBuffer body;
//     hr = VoDataConversion::HexToBin(text, body.PutBytes(), body.PutLength());
class CVoByteBuffer
{
public:
    // For out arguments; a buffer held is released first.
    [[nodiscard]] BYTE** PutBytes() noexcept
    {
        Reset();
        return &m_bytes;
    }
    [[nodiscard]] UINT32* PutLength() noexcept { return &m_length; }

    CVoByteBuffer() noexcept = default;
    // Takes over a buffer made with new BYTE[].
    CVoByteBuffer(std::unique_ptr<BYTE[]> bytes, UINT32 length) noexcept : m_bytes(bytes.release()), m_length(length) {}
    CVoByteBuffer(CVoByteBuffer&& other) noexcept
        : m_bytes(std::exchange(other.m_bytes, nullptr)), m_length(std::exchange(other.m_length, 0))
    {
    }
    CVoByteBuffer& operator=(CVoByteBuffer&& other) noexcept
    {
        std::swap(m_bytes, other.m_bytes);
        std::swap(m_length, other.m_length);
        return *this;
    }
    CVoByteBuffer(const CVoByteBuffer&) = delete;
    CVoByteBuffer& operator=(const CVoByteBuffer&) = delete;
    ~CVoByteBuffer() { Reset(); }

    [[nodiscard]] const BYTE* Data() const noexcept { return m_bytes; }
    [[nodiscard]] BYTE* Data() noexcept { return m_bytes; }
    [[nodiscard]] UINT32 Length() const noexcept { return m_length; }
    [[nodiscard]] bool IsEmpty() const noexcept { return m_length == 0; }
    [[nodiscard]] std::span<const BYTE> Bytes() const noexcept { return { m_bytes, m_length }; }

    void Reset() noexcept
    {
        delete[] std::exchange(m_bytes, nullptr);
        m_length = 0;
    }
    // Gives the buffer to the caller, who releases it with delete[].
    [[nodiscard]] BYTE* Detach() noexcept
    {
        m_length = 0;
        return std::exchange(m_bytes, nullptr);
    }

private:
    BYTE* m_bytes = nullptr;
    UINT32 m_length = 0;
};
