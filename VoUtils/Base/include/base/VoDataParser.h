// The library's parameter text, and the message bodies made of parameters and a binary payload. The HTTP layer builds request
// bodies with it; the stores serialise their records with it.
//
// Parameter text is name=value pairs joined by "&"; inside a value "$" is written "$$" and "&" is written "$&", names are
// written as they are. A message is parameter text as bytes, "&&", then the payload.
//
// Parsers are not thread-safe; use one per request. Operations return HRESULTs, report each failure, and leave outputs
// untouched when they fail.
#pragma once

#include <base/Vo2DIDArray.h>
#include <base/VoCArray.h>
#include <base/VoPayload.h>
#include <base/VoPlatform.h>
#include <base/VoText.h>
#include <base/VoVariant.h>
#include <base/VoWipe.h>

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// One parameter. A record that a parser read refers to the parser's copy of the text, until somebody asks for a std::wstring or
// changes the value.
class CParamRec
{
public:
    CParamRec() noexcept = default;
    CParamRec(CVoTextView name, CVoTextView value);
    CParamRec(const CParamRec& other) : CParamRec(other.m_name, other.m_value) {}
    CParamRec(CParamRec&&) noexcept = default;
    CParamRec& operator=(const CParamRec& other) { return *this = CParamRec(other); }
    CParamRec& operator=(CParamRec&&) noexcept = default;
    ~CParamRec() = default;

    // Fills the record from one pair of parameter text: the first "=" splits it, the name loses white space at both ends, the
    // value its escapes ("$&" and "$$"; any other "$" stands for itself). E_FAIL for a pair without "=", E_INVALIDARG for a
    // null text with a length, kResultNotEnoughMemory (reported as a growable array's). The record is untouched on failure.
    [[nodiscard]] HRESULT PutParamString(const wchar_t* text, size_t length) noexcept;

    // The texts without copying them. Valid until the record changes or its parser's list does.
    [[nodiscard]] std::wstring_view NameView() const noexcept { return m_name; }
    [[nodiscard]] std::wstring_view ValueView() const noexcept { return m_value; }
    // The same as strings, which the first call makes; several threads may make it. Throw std::bad_alloc.
    [[nodiscard]] const std::wstring& Name() const { return Own().name; }
    [[nodiscard]] const std::wstring& Value() const { return Own().value; }
    // Throws std::bad_alloc; the record is untouched then.
    void SetValue(std::wstring value);
    // Overwrites the value's memory, then empties it.
    void WipeValue() noexcept;

private:
    friend class CVoDataParser;

    struct CTexts
    {
        std::wstring name;
        std::wstring value;
    };
    // Owns the strings. Of several threads that make them in a constant record, the first one's stay.
    class COwnTexts
    {
    public:
        COwnTexts() noexcept = default;
        COwnTexts(COwnTexts&& other) noexcept : m_texts(other.Take().release()) {}
        COwnTexts& operator=(COwnTexts&& other) noexcept
        {
            Reset(other.Take());
            return *this;
        }
        COwnTexts(const COwnTexts&) = delete;
        COwnTexts& operator=(const COwnTexts&) = delete;
        ~COwnTexts() { delete Get(); }

        [[nodiscard]] CTexts* Get() const noexcept { return m_texts.load(std::memory_order_acquire); }
        // Takes the texts unless there are some. Returns those that are there then.
        CTexts& PutFirst(std::unique_ptr<CTexts> texts) noexcept
        {
            CTexts* first = nullptr;
            return m_texts.compare_exchange_strong(first, texts.get()) ? *texts.release() : *first;
        }
        void Reset(std::unique_ptr<CTexts> texts) noexcept
        {
            delete Get();
            m_texts.store(texts.release(), std::memory_order_relaxed);
        }

    private:
        [[nodiscard]] std::unique_ptr<CTexts> Take() noexcept
        {
            std::unique_ptr<CTexts> texts(Get());
            m_texts.store(nullptr, std::memory_order_relaxed);
            return texts;
        }

        std::atomic<CTexts*> m_texts{ nullptr };
    };

    // Takes one pair of a parser's own copy of a text, which it overwrites with the value: `equals` is the place of the first
    // "=". `hasEscapes`: there is a "$" in it.
    void PutPairInPlace(std::span<wchar_t> pair, size_t equals, bool hasEscapes) noexcept;
    void PutTexts(std::unique_ptr<CTexts> texts) noexcept;
    CTexts& Own() const;

    std::wstring_view m_name;
    std::wstring_view m_value;
    mutable COwnTexts m_own; // empty: the texts belong to the parser, and nobody asked for strings
};

template <>
inline constexpr const wchar_t* kCArraySetSizeName<CParamRec*, CParamRec*> =
    L"CArray<class CParamRec *,class CParamRec *>::SetSize";

// An ordered list of named parameters, all kept as text. Names are compared without regard to case. A name may occur twice;
// then the first is found. Numbers, booleans and dates are converted by VoChangeVariantTypeNoLocale.
class CVoDataParser
{
public:
    CVoDataParser() = default;
    CVoDataParser(const CVoDataParser& other);
    CVoDataParser(CVoDataParser&& other) noexcept;
    CVoDataParser& operator=(const CVoDataParser& other);
    CVoDataParser& operator=(CVoDataParser&& other) noexcept;
    virtual ~CVoDataParser();

    // Append a parameter. A null text is an empty one. A variant is converted by its type; a byte array (VT_ARRAY|VT_UI1)
    // becomes upper-case hexadecimal. An array of identified values becomes the parameters name_dim1, name_dim2 and for each
    // cell name_empty_r_c, and unless that is true name_ID_r_c, name_type_r_c and name_val_r_c. A cell that holds an array
    // other than a byte array is refused with DISP_E_TYPEMISMATCH. All or nothing is appended.
    [[nodiscard]] HRESULT AddParam(CVoTextView name, CVoTextView value) noexcept;
    [[nodiscard]] HRESULT AddParam(CVoTextView name, const wchar_t* value) noexcept;
    [[nodiscard]] HRESULT AddParam(CVoTextView name, UINT32 value) noexcept;
    // Any other integer of 32 bits (DWORD, long, INT32). A negative number reads back through GetParam as the same bits.
    template <CVoOther32BitInteger T>
    [[nodiscard]] HRESULT AddParam(CVoTextView name, T value) noexcept
    {
        return AddParam(name, static_cast<UINT32>(value));
    }
    [[nodiscard]] HRESULT AddParam(CVoTextView name, double value) noexcept;
    [[nodiscard]] HRESULT AddParam(CVoTextView name, bool value) noexcept;
    [[nodiscard]] HRESULT AddParam(CVoTextView name, const VARIANT& value) noexcept;
    [[nodiscard]] HRESULT AddParam(CVoTextView name, const CVo2DIDArray& value) noexcept;

    // Read the first parameter of that name, converted. HRESULT_FROM_WIN32(ERROR_NOT_FOUND) when there is none, else the code
    // of the conversion. A variant becomes of the type asked for, or of the type that it holds on entry (text for VT_EMPTY); it
    // must be a valid one, and what it held is cleared.
    [[nodiscard]] HRESULT GetParam(CVoTextView name, std::wstring& value) const noexcept;
    [[nodiscard]] HRESULT GetParam(CVoTextView name, UINT32& value) const noexcept;
    template <CVoOther32BitInteger T>
    [[nodiscard]] HRESULT GetParam(CVoTextView name, T& value) const noexcept
    {
        UINT32 number = 0;
        const HRESULT hr = GetParam(name, number);
        if (SUCCEEDED(hr))
            value = static_cast<T>(number);
        return hr;
    }
    [[nodiscard]] HRESULT GetParam(CVoTextView name, double& value) const noexcept;
    [[nodiscard]] HRESULT GetParam(CVoTextView name, bool& value) const noexcept;
    [[nodiscard]] HRESULT GetParam(CVoTextView name, VARIANT& value) const noexcept;
    [[nodiscard]] HRESULT GetParam(CVoTextView name, VARIANT& value, VARTYPE type) const noexcept;
    // E_INVALIDARG for sizes that are negative or ask for more cells than the list can describe.
    [[nodiscard]] HRESULT GetParam(CVoTextView name, CVo2DIDArray& value) const noexcept;

    // The first record of that name, or null. It belongs to the parser and lives until the list changes.
    [[nodiscard]] const CParamRec* FindParam(CVoTextView name) const noexcept;
    [[nodiscard]] bool ParamExists(CVoTextView name) const noexcept { return FindParam(name) != nullptr; }

    // The list in its order, for iteration. Records stay where they are until the list is emptied.
    [[nodiscard]] size_t GetCount() const noexcept { return m_params.GetSize(); }
    [[nodiscard]] const CParamRec& GetAt(size_t index) const noexcept { return *m_params[index]; }
    void RemoveAll() noexcept;
    // The same for a list that holds secrets: values are overwritten before their memory is released.
    void WipeAll() noexcept;

    // Appends the pairs found in parameter text. Empty pairs are ignored. A pair without "=" ends it with E_FAIL; pairs
    // read before stay in the list.
    [[nodiscard]] HRESULT ReadParamsFromString(CVoTextView text) noexcept;
    // The whole list as parameter text.
    [[nodiscard]] HRESULT GetParamsAsString(std::wstring& text) const noexcept;

    // One value to its URL-encoded form and back, in place. Every byte that is no ASCII letter or digit is encoded, also the
    // "-._~" that RFC 3986 section 2.3 leaves alone, and no "+" is made or read. With `useUtf8` over UTF-8 bytes, else one byte
    // per character (E_FAIL for a character above 255). Text without "%" is decoded already; E_FAIL for a malformed escape.
    [[nodiscard]] static HRESULT ToUTF8AndUrlEncode(bool useUtf8, std::wstring& value) noexcept;
    [[nodiscard]] static HRESULT FromUTF8AndUrlEncode(bool useUtf8, std::wstring& value) noexcept;
    // The same for every value of the list; the first failure stops and leaves all values as they were.
    [[nodiscard]] HRESULT ConvertParamValuesToUTF8URLEncodedString(bool useUtf8) noexcept;
    [[nodiscard]] HRESULT ConvertParamValuesFromUTF8URLEncodedString(bool useUtf8) noexcept;

private:
    template <class CValue>
    [[nodiscard]] HRESULT AddTyped(std::wstring_view name, const CValue& value) noexcept;
    template <class CValue>
    [[nodiscard]] HRESULT GetTyped(std::wstring_view name, CValue& value) const noexcept;
    [[nodiscard]] HRESULT AddText(CVoTextView name, const VARIANT& value) noexcept;
    [[nodiscard]] HRESULT AppendCells(CVoTextView name, const CVo2DIDArray& value);
    [[nodiscard]] HRESULT ReadCells(CVoTextView name, CVo2DIDArray& value) const;
    [[nodiscard]] HRESULT ConvertValues(HRESULT (*convert)(bool, std::wstring&) noexcept, bool useUtf8);
    void Swap(CVoDataParser& other) noexcept;
    // A record behind the last one of the list, to be filled; then AppendNext adds it.
    [[nodiscard]] CParamRec& NextRecord();
    [[nodiscard]] HRESULT AppendNext() noexcept;
    // Copies a text to a new block.
    [[nodiscard]] HRESULT KeepText(std::wstring_view text, std::span<wchar_t>& kept) noexcept;

    // Records and the texts that they were read from stand in blocks: with an allocation for each of them, reading a short
    // parameter would take four times as long.
    class CBlock;
    struct CFreeBlocks
    {
        void operator()(CBlock* newest) const noexcept;
    };
    void AddBlock(size_t records, size_t units);

    CArray<CParamRec*, CParamRec*> m_params;       // in their order
    std::unique_ptr<CBlock, CFreeBlocks> m_blocks; // the newest; each owns the one before it
};

// Parameters with a binary payload.
class CVoBinaryDataParser : public CVoDataParser
{
public:
    CVoBinaryDataParser() = default;
    CVoBinaryDataParser(const CVoBinaryDataParser&) = default;
    CVoBinaryDataParser(CVoBinaryDataParser&&) noexcept = default;
    // All or nothing: throws CVoHResultException or std::bad_alloc and has changed nothing then.
    CVoBinaryDataParser& operator=(const CVoBinaryDataParser& other) { return *this = CVoBinaryDataParser(other); }
    CVoBinaryDataParser& operator=(CVoBinaryDataParser&&) noexcept = default;
    ~CVoBinaryDataParser() override = default;

    // Takes a message apart: replaces the payload and appends the parameters found. `binaryOnly` makes the whole input the
    // payload. With `useUtf8` the text is UTF-8 (a byte-order mark is skipped), else in the thread's ANSI code page. Without
    // "&&" the whole input is parameter text. E_INVALIDARG for null bytes with a length changes nothing; any later failure
    // leaves no payload, and after a pair without "=" (E_FAIL) the pairs in front of it stay in the list.
    [[nodiscard]] HRESULT Parse(UINT32 length, const BYTE* bytes, bool binaryOnly, bool useUtf8) noexcept;
    // The same, but takes over the bytes: a large payload is moved within its buffer and is never in memory twice. `bytes` is
    // untouched on failure. E_INVALIDARG above UINT32_MAX bytes.
    [[nodiscard]] HRESULT Parse(std::vector<BYTE>&& bytes, bool binaryOnly, bool useUtf8) noexcept;

    // Builds a message. Without `useUtf8` the text goes out in the system's ANSI code page; `skipParams` leaves text and "&&"
    // out. The buffer is allocated with new BYTE[] and belongs to the caller; a null buffer pointer asks for the length alone.
    // HRESULT_FROM_WIN32(ERROR_ARITHMETIC_OVERFLOW) for a message of more than UINT32_MAX bytes.
    [[nodiscard]] HRESULT GetMessageData(UINT32* length, BYTE** buffer, bool skipParams, bool useUtf8) const noexcept;
    // The same with a prefix: the message's length as an unsigned 32-bit little-endian number.
    [[nodiscard]] HRESULT GetMessageDataWithSizePrefix(UINT32* length, BYTE** buffer, bool skipParams,
                                                       bool useUtf8) const noexcept;
    // A multipart/form-data body (RFC 7578): every parameter but "FileName" and "ContentType" as a field, then the payload as a
    // file when "FileName" names one (of the type "image/pjpeg" without "ContentType"); else the payload is not sent.
    // `boundary` (41 characters) is made afresh for each body. Texts are UTF-8 with `useUtf8`, else in the system's ANSI code
    // page. CR, LF and quotation marks in names go out as "%0D", "%0A" and "%22", as HTML forms do, so that no text can break
    // the body's structure.
    [[nodiscard]] HRESULT GetFormMessageData(UINT32* length, BYTE** buffer, std::wstring& boundary,
                                             bool useUtf8) const noexcept;
    // What stands in front of the payload in these two messages, and behind it, so that a caller can send a large payload from
    // where it is. `withSizePrefix` is for GetMessageDataWithSizePrefix. `sendsPayload`: whether the payload belongs to the
    // form. The caller refuses a message that is too long. Outputs are written on success only.
    [[nodiscard]] HRESULT GetMessageHead(bool withSizePrefix, bool skipParams, bool useUtf8, std::string& head) const noexcept;
    [[nodiscard]] HRESULT GetFormMessageEnds(bool useUtf8, std::string& head, bool& sendsPayload, std::string& foot,
                                             std::wstring& boundary) const noexcept;
    // The parameters as parameter text in bytes, without "&&" and payload (the body of a form); the buffer as above.
    [[nodiscard]] HRESULT GetParamData(bool useUtf8, UINT32* length, BYTE** buffer) const noexcept;

    // The steps of GetMessageData: the parameter text with "&&" behind it as bytes, and any text as bytes; UTF-8 with
    // `useUtf8`, else in the system's ANSI code page. The buffer as above.
    [[nodiscard]] HRESULT internalGetParamData(bool useUtf8, UINT32* length, BYTE** buffer) const noexcept;
    [[nodiscard]] static HRESULT StringToMessageData(CVoTextView text, bool useUtf8, UINT32* length, BYTE** buffer) noexcept;

    // Copies the payload. What Payload() returns is valid until the payload changes. E_INVALIDARG for null bytes with a length;
    // kResultNotEnoughMemory, reported as a growable array's.
    [[nodiscard]] HRESULT SetPayload(const BYTE* bytes, UINT32 length) noexcept;
    // Takes the payload over. WinHTTP sends a message from one piece of memory, and a payload that was taken over is copied
    // there for each send. A payload of 64 KB or more that was copied in has room for the message's head in front, and needs no
    // copy.
    void SetPayload(std::vector<BYTE>&& bytes) noexcept { m_payload = CVoPayload(std::move(bytes)); }
    [[nodiscard]] std::span<const BYTE> Payload() const noexcept { return m_payload.Bytes(); }
    // Moves the payload out of the parser.
    [[nodiscard]] std::vector<BYTE> TakePayload() noexcept { return m_payload.Take(); }
    // The payload with `head`, which GetMessageHead gives, in one piece of memory; see CVoPayload::Join.
    [[nodiscard]] CVoPayload::CJoined JoinPayload(std::string_view head) const noexcept
    {
        return m_payload.Join(VoBytesOf(head));
    }

private:
    [[nodiscard]] HRESULT ParamBytes(bool useUtf8, std::string_view terminator, std::string& bytes) const;
    [[nodiscard]] HRESULT internalGetMessageData(bool withSizePrefix, UINT32* length, BYTE** buffer, bool skipParams,
                                                 bool useUtf8) const noexcept;
    [[nodiscard]] HRESULT ReadParams(std::span<const BYTE> text, bool useUtf8);

    CVoPayload m_payload;
};
