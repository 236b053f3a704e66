// The binary payload of a message, as CVoBinaryDataParser keeps it. A large payload that was copied in has room in front of it:
// a message's head is written there when the message is sent, and head and payload are one piece of memory without a copy.
#pragma once

#include <base/VoPlatform.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <span>
#include <utility>
#include <vector>

// Not thread-safe, but for Join: several threads may send one message.
class CVoPayload
{
    struct CRelease
    {
        void operator()(std::atomic<bool>* isJoined) const noexcept { isJoined->store(false, std::memory_order_release); }
    };

public:
    // A head and the payload behind it. The room is free again when this is gone.
    class CJoined
    {
    public:
        CJoined() = default;
        // Empty: there was no room.
        [[nodiscard]] std::span<const BYTE> Bytes() const noexcept { return m_bytes; }

    private:
        friend class CVoPayload;
        std::span<const BYTE> m_bytes;
        std::unique_ptr<std::atomic<bool>, CRelease> m_room;
    };

    CVoPayload() = default;
    // Takes the bytes over. There is no room in front of them.
    explicit CVoPayload(std::vector<BYTE>&& bytes) noexcept : m_bytes(std::move(bytes)) {}
    // Copies the bytes. Throws std::bad_alloc.
    explicit CVoPayload(std::span<const BYTE> bytes) : m_roomSize(bytes.size() < kSmallestWithRoom ? 0 : kRoomSize)
    {
        m_bytes.reserve(m_roomSize + bytes.size());
        m_bytes.resize(m_roomSize);
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    }
    CVoPayload(const CVoPayload& other) : CVoPayload(other.Bytes()) {}
    CVoPayload(CVoPayload&& other) noexcept
        : m_bytes(std::exchange(other.m_bytes, {})), m_roomSize(std::exchange(other.m_roomSize, 0))
    {
    }
    CVoPayload& operator=(CVoPayload other) noexcept
    {
        m_bytes.swap(other.m_bytes);
        std::swap(m_roomSize, other.m_roomSize);
        return *this;
    }
    ~CVoPayload() = default;

    [[nodiscard]] std::span<const BYTE> Bytes() const noexcept { return std::span(m_bytes).subspan(m_roomSize); }
    // Moves the bytes out. Those with room in front move within their buffer.
    [[nodiscard]] std::vector<BYTE> Take() noexcept
    {
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(std::exchange(m_roomSize, 0)));
        return std::exchange(m_bytes, {});
    }
    // Writes `head` in front of the payload. Empty where there is no room for it, or where another message uses the room. The
    // payload must not change while the result is in use.
    [[nodiscard]] CJoined Join(std::span<const BYTE> head) const noexcept
    {
        CJoined joined;
        if (head.size() > m_roomSize || m_isJoined.exchange(true, std::memory_order_acquire))
            return joined;
        joined.m_room.reset(&m_isJoined);
        const std::span<BYTE> message = std::span(m_bytes).subspan(m_roomSize - head.size());
        std::copy(head.begin(), head.end(), message.begin());
        joined.m_bytes = message;
        return joined;
    }

private:
    // Heads with more text than this are joined by a copy, and so are payloads too small for the copy to matter.
    static constexpr size_t kRoomSize = 4096;
    static constexpr size_t kSmallestWithRoom = size_t{ 64 } * 1024;

    mutable std::vector<BYTE> m_bytes; // the room, which is no part of the value, and the payload
    size_t m_roomSize = 0;
    mutable std::atomic<bool> m_isJoined{ false };
};
