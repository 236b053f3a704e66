// Wiping of texts that hold secrets (passwords, private keys) before their memory goes back.
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

// Overwrites a BSTR that somebody owns; its length stays. Null is allowed.
inline void VoWipe(BSTR text) noexcept
{
    if (text)
        ::SecureZeroMemory(text, ::SysStringByteLen(text));
}

// A text that is wiped when it goes and before it changes.
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
    // Short texts live inside the object, where a move would leave them behind: swapping the empty text in moves both.
    void Swap(CVoSecret& other) noexcept
    {
        m_text.swap(other.m_text);
        VoWipe(other.m_text);
    }

    std::basic_string<Character> m_text;
};
