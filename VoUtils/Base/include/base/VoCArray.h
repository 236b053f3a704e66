// Containers of the library: the growable array, and an owner for the byte buffers that operations return. Used everywhere.
#pragma once

#include <base/VoErrorHandler.h>
#include <base/VoHResult.h>
#include <base/VoPlatform.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

// Owns a byte buffer that an operation handed out through an out pointer and an out length:
//
//     CVoByteBuffer body;
//     hr = VoDataConversion::HexToBin(text, body.PutBytes(), body.PutLength());
class CVoByteBuffer
{
public:
    // For out arguments. The buffer that it owns is released first.
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
    // Returns the buffer and no longer owns it. The caller releases it with delete[].
    [[nodiscard]] BYTE* Detach() noexcept
    {
        m_length = 0;
        return std::exchange(m_bytes, nullptr);
    }

private:
    BYTE* m_bytes = nullptr;
    UINT32 m_length = 0;
};

// The name under which an array reports that it could not grow. Support looks for these texts, so they do not depend on how a
// compiler spells the types. An array of another type may specialise its own name.
template <class Type, class ArgType>
inline constexpr const wchar_t* kCArraySetSizeName = L"CArray::SetSize";
template <>
inline constexpr const wchar_t* kCArraySetSizeName<unsigned char, unsigned char> =
    L"CArray<unsigned char,unsigned char>::SetSize";
template <>
inline constexpr const wchar_t* kCArraySetSizeName<wchar_t, wchar_t> = L"CArray<wchar_t,wchar_t>::SetSize";

// Reports that an array of these types could not grow, and returns the code for it. Also for other containers that take the
// place of such an array.
template <class Type, class ArgType>
HRESULT VoReportFullArray() noexcept
{
    return CVoReporter{ L"VoCArray.h", kCArraySetSizeName<Type, ArgType> }(110, kResultNotEnoughMemory);
}

// A growable array that returns an HRESULT, instead of throwing, when there is no room. `ArgType` is the type in which items
// are passed in. New items are value-initialised; growing one by one is amortised. Not thread-safe.
//
// Functions that grow the array return kResultNotEnoughMemory (0x80070008) on failure. They report it under SetSize's name and
// leave the array untouched.
template <class Type, class ArgType = const Type&>
class CArray
{
    static_assert(std::is_nothrow_default_constructible_v<Type> && std::is_nothrow_move_assignable_v<Type>,
                  "moving items must not fail, so that a failure leaves the array untouched");

public:
    // The standard library's names, so that its algorithms take the array.
    using value_type = Type;
    using iterator = typename std::vector<Type>::iterator;
    using const_iterator = typename std::vector<Type>::const_iterator;

    [[nodiscard]] size_t GetSize() const noexcept { return m_items.size(); }
    [[nodiscard]] bool IsEmpty() const noexcept { return m_items.empty(); }

    // Keeps the first items; removes items at the end or adds new ones there.
    [[nodiscard]] HRESULT SetSize(size_t size) noexcept
    {
        try
        {
            m_items.resize(size);
            return S_OK;
        }
        catch (...)
        {
            return VoReportFullArray<Type, ArgType>();
        }
    }

    // Appends an item. It may be one of the array's own.
    [[nodiscard]] HRESULT Add(ArgType item) noexcept(std::is_nothrow_copy_constructible_v<Type>)
    {
        return InsertAt(GetSize(), item);
    }

    // Inserts an item before the one at `index`. An index behind the end grows the array up to it. The item may be one of the
    // array's own.
    [[nodiscard]] HRESULT InsertAt(size_t index, ArgType item) noexcept(std::is_nothrow_copy_constructible_v<Type>)
    {
        Type copy(item);
        const size_t size = GetSize();
        // Adding 1 to SIZE_MAX would overflow to 0. No array can hold SIZE_MAX items, so asking for that many fails as it
        // should.
        const size_t last = std::max(index, size);
        if (const HRESULT hr = SetSize(last < SIZE_MAX ? last + 1 : SIZE_MAX); FAILED(hr))
            return hr;
        if (index < size)
            std::move_backward(Position(index), Position(size), m_items.end());
        m_items[index] = std::move(copy);
        return S_OK;
    }

    // Removes items. Places outside the array are ignored.
    void RemoveAt(size_t index, size_t count = 1) noexcept
    {
        const size_t first = std::min(index, GetSize());
        const size_t last = first + std::min(count, GetSize() - first);
        m_items.erase(Position(first), Position(last));
    }
    void RemoveAll() noexcept { m_items.clear(); }

    // `index` must lie within the array.
    [[nodiscard]] Type& operator[](size_t index) noexcept
    {
        assert(index < GetSize());
        return m_items[index];
    }
    [[nodiscard]] const Type& operator[](size_t index) const noexcept
    {
        assert(index < GetSize());
        return m_items[index];
    }

    [[nodiscard]] Type* GetData() noexcept { return m_items.data(); }
    [[nodiscard]] const Type* GetData() const noexcept { return m_items.data(); }
    [[nodiscard]] iterator begin() noexcept { return m_items.begin(); }
    [[nodiscard]] iterator end() noexcept { return m_items.end(); }
    [[nodiscard]] const_iterator begin() const noexcept { return m_items.begin(); }
    [[nodiscard]] const_iterator end() const noexcept { return m_items.end(); }

private:
    [[nodiscard]] iterator Position(size_t index) noexcept { return m_items.begin() + static_cast<std::ptrdiff_t>(index); }

    std::vector<Type> m_items;
};
