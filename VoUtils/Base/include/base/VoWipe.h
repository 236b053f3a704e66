// Wipes texts that hold secrets (passwords, private keys) before their memory is released.
#pragma once

#include <base/VoPlatform.h>

#include <string>

// Overwrites a text's memory, spare capacity included, and empties it.
template <class Character>
void VoWipe(std::basic_string<Character>& text) noexcept
{
    text.resize(text.capacity()); // never reallocates
    ::SecureZeroMemory(text.data(), text.size() * sizeof(Character));
    text.clear();
}

// Overwrites a BSTR; its length stays. The caller keeps it. Null is allowed.
inline void VoWipe(BSTR text) noexcept
{
    if (text)
        ::SecureZeroMemory(text, ::SysStringByteLen(text));
}

// A text that is wiped when it is destroyed and before it is replaced.
template <class Character>
class CVoSecret
{
public:
    CVoSecret() = default;
    explicit CVoSecret(std::basic_string<Character> text) noexcept : m_text(std::move(text)) {}
    CVoSecret(CVoSecret&& other) noexcept { Swap(other); }
    CVoSecret& operator=(CVoSecret&& other) noexcept
    {
        VoWipe(m_text);
        Swap(other);
        return *this;
    }
    CVoSecret(const CVoSecret&) = delete;
    CVoSecret& operator=(const CVoSecret&) = delete;
    ~CVoSecret() { VoWipe(m_text); }

    [[nodiscard]] const std::basic_string<Character>& Get() const noexcept { return m_text; }
    [[nodiscard]] std::basic_string<Character>& Get() noexcept { return m_text; }

private:
    // Short texts are stored inside the object, and a move would leave them there. Swapping with the empty text does not.
    void Swap(CVoSecret& other) noexcept
    {
        m_text.swap(other.m_text);
        VoWipe(other.m_text);
    }

    std::basic_string<Character> m_text;
};
