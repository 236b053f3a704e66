// Parameter text and messages. Throughput counts the text in UTF-16 bytes, or the whole message.
#include "Benchmark.h"

#include <base/VoDataParser.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{
using CBytes = std::vector<BYTE>;

// About that many characters of text in that many parameters, with an escape in each fourth one.
CVoBinaryDataParser MakeParams(size_t count, size_t characters)
{
    CVoBinaryDataParser parser;
    for (size_t i = 0; i < count; ++i)
    {
        const std::wstring name = L"p" + std::to_wstring(i);
        std::wstring value(std::max<size_t>(characters / count, name.size() + 3) - name.size() - 2, L'v');
        if (i % 4 == 0)
            value[value.size() / 2] = L'&';
        (void)parser.AddParam(name, std::wstring_view(value));
    }
    return parser;
}

void CompareText(size_t count, size_t characters)
{
    const CVoBinaryDataParser parser = MakeParams(count, characters);
    std::wstring text;
    (void)parser.GetParamsAsString(text);
    std::wstring copy = text;
    Benchmark::COptions options;
    options.bytes = static_cast<double>(text.size() * sizeof(wchar_t));
    Benchmark::Compare(std::to_string(count) + " parameters, " + std::to_string(text.size()) + " characters",
                       {
                           { "write",
                             [&]
    {
        std::wstring written;
        (void)parser.GetParamsAsString(written);
        Benchmark::Keep(written);
    } },
                           { "read (and release)",
                             [&]
    {
        CVoDataParser read;
        (void)read.ReadParamsFromString(text);
        Benchmark::Keep(read);
    } },
                           { "memcpy of the text",
                             [&]
    {
        std::memcpy(copy.data(), text.data(), text.size() * sizeof(wchar_t));
        Benchmark::Keep(copy);
    } },
                       },
                       options);
}

void CompareMessage()
{
    constexpr size_t kPayload = 10'000'000;
    CVoBinaryDataParser parser = MakeParams(10, 200);
    (void)parser.AddParam(L"FileName", L"payload.bin");
    parser.SetPayload(CBytes(kPayload, BYTE{ 7 }));
    CVoByteBuffer message;
    (void)parser.GetMessageData(message.PutLength(), message.PutBytes(), false, true);
    Benchmark::COptions options;
    options.bytes = static_cast<double>(message.Length());
    CVoByteBuffer built;
    std::wstring boundary;
    Benchmark::Compare("message with a payload of 10 MB",
                       {
                           { "new buffer and memcpy",
                             [&]
    {
        const auto bytes = std::make_unique_for_overwrite<BYTE[]>(message.Length());
        std::memcpy(bytes.get(), message.Data(), message.Length());
        Benchmark::Keep(bytes);
    } },
                           { "build",
                             [&]
    {
        (void)parser.GetMessageData(built.PutLength(), built.PutBytes(), false, true);
        Benchmark::Keep(built);
    } },
                           { "build multipart",
                             [&]
    {
        (void)parser.GetFormMessageData(built.PutLength(), built.PutBytes(), boundary, true);
        Benchmark::Keep(built);
    } },
                           { "parse, payload copied",
                             [&]
    {
        CVoBinaryDataParser parsed;
        (void)parsed.Parse(message.Length(), message.Data(), false, true);
        Benchmark::Keep(parsed);
    } },
                           { "copy, then parse in place",
                             [&]
    {
        CBytes bytes(message.Bytes().begin(), message.Bytes().end());
        CVoBinaryDataParser parsed;
        (void)parsed.Parse(std::move(bytes), false, true);
        Benchmark::Keep(parsed);
    } },
                       },
                       options);
}

void Run()
{
    CompareText(10, 200);
    CompareText(1'000, 20'000);
    CompareText(10'000, 1 << 19); // 1 MB in UTF-16
    CompareText(100'000, 2'000'000);
    CompareMessage();
}

const Benchmark::CGroup kGroup("parser", &Run);
} // namespace
