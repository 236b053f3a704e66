// Builds dialog templates in memory. The credentials dialog uses it.
#pragma once

#include <base/VoPlatform.h>

#include <cstring>
#include <string_view>
#include <vector>

// The window classes that have a number in a template (platform documentation of DLGITEMTEMPLATE).
enum class EDialogControl : WORD
{
    Button = 0x80,
    Edit = 0x81,
    Static = 0x82,
    ScrollBar = 0x84
};

// A rectangle in dialog units: quarters of the dialog font's average width, eighths of its height.
struct CDialogRect
{
    short x;
    short y;
    short cx;
    short cy;
};

// A template in the platform's form DLGTEMPLATE: the dialog first, then its controls in keyboard order. DialogBoxIndirectParamW
// and similar functions take Get().
class CDialogTemplate
{
public:
    // Throws std::bad_alloc, as Add does. `style` must include DS_SETFONT. `fontPoints` is the size of the font in points.
    CDialogTemplate(DWORD style, const CDialogRect& rect, std::wstring_view caption, WORD fontPoints, std::wstring_view font)
    {
        // Add counts the controls in `cdit`.
        Append(DLGTEMPLATE{ style, 0, 0, rect.x, rect.y, rect.cx, rect.cy });
        AppendWord(0); // no menu
        AppendWord(0); // the platform's dialog class
        AppendText(caption);
        AppendWord(fontPoints);
        AppendText(font);
    }

    // WS_CHILD and WS_VISIBLE are added to `style`.
    void Add(EDialogControl control, WORD id, DWORD style, DWORD extendedStyle, const CDialogRect& rect, std::wstring_view text)
    {
        // Every control begins at a multiple of four bytes.
        if (m_words.size() % 2 != 0)
            AppendWord(0);
        Append(DLGITEMTEMPLATE{ style | WS_CHILD | WS_VISIBLE, extendedStyle, rect.x, rect.y, rect.cx, rect.cy, id });
        AppendWord(0xFFFF);
        AppendWord(static_cast<WORD>(control));
        AppendText(text);
        AppendWord(0); // no creation data
        ++m_words[kCountOfControls];
    }

    [[nodiscard]] const DLGTEMPLATE* Get() const noexcept { return reinterpret_cast<const DLGTEMPLATE*>(m_words.data()); }

private:
    static constexpr size_t kCountOfControls = offsetof(DLGTEMPLATE, cdit) / sizeof(WORD);

    void AppendWord(WORD word) { m_words.push_back(word); }
    void AppendText(std::wstring_view text)
    {
        m_words.insert(m_words.end(), text.begin(), text.end());
        AppendWord(0);
    }
    template <class Record>
    void Append(const Record& record)
    {
        static_assert(sizeof(Record) % sizeof(WORD) == 0);
        const size_t start = m_words.size();
        m_words.resize(start + sizeof(Record) / sizeof(WORD));
        std::memcpy(&m_words[start], &record, sizeof(Record));
    }

    // A template needs an alignment of four bytes; the allocator gives more.
    std::vector<WORD> m_words;
};
