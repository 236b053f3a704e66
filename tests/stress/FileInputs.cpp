// Random inputs for INI files, signed ones, settings, typed parameters and keys, and for the texts of the doctor's renderers.
#include "Campaign.h"

#include <VoDiagnosisRender.h>
#include <base/VoDataParser.h>
#include <base/VoModuleSettings.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>
#include <base/utils/VoDataConversion.h>
#include <support/KeyPairs.h>
#include <support/TestMain.h>
#include <win/OrvDigSign.h>
#include <win/OrvSignedIniFileHandler.h>
#include <win/VoParamHandler.h>
#include <win/VoUtilFileIO.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <utility>

using namespace std::literals;

namespace Stress
{
namespace
{
// ---- INI files

struct CSection
{
    std::wstring name;
    std::vector<std::pair<std::wstring, std::wstring>> entries;

    bool operator==(const CSection&) const = default;
};

// A reader that takes line by line what VoUtilFileIO.h describes. Nothing for bytes whose text the reference cannot tell:
// without a mark and not UTF-8, they are in the code page.
std::optional<std::vector<CSection>> ReferenceIni(std::string_view bytes)
{
    std::optional<std::wstring> text;
    const bool isLittle = bytes.starts_with("\xFF\xFE");
    if (isLittle || bytes.starts_with("\xFE\xFF"))
    {
        text.emplace();
        for (size_t i = 2; i + 1 < bytes.size(); i += 2)
            *text +=
                static_cast<wchar_t>(static_cast<BYTE>(bytes[i + !isLittle]) | static_cast<BYTE>(bytes[i + isLittle]) << 8);
    }
    else
        text = ReferenceFromUtf8(bytes.substr(bytes.starts_with("\xEF\xBB\xBF") ? 3 : 0));
    if (!text)
        return std::nullopt;
    std::vector<CSection> sections;
    size_t current = SIZE_MAX;
    for (size_t at = 0; at < text->size();)
    {
        const size_t end = std::min(text->find_first_of(L"\r\n", at), text->size());
        std::wstring_view line = VoIniTrimRight(std::wstring_view(*text).substr(at, end - at));
        const std::wstring_view whole = std::wstring_view(*text).substr(at, end - at);
        at = end + 1;
        const size_t blanks = whole.size() - VoIniTrim(std::wstring(whole) + L'x').size() + 1;
        line = whole.substr(std::min(blanks, whole.size()));
        if (line.starts_with(L'['))
        {
            const size_t close = line.find(L']');
            if (close == std::wstring_view::npos)
                continue;
            const std::wstring name(VoIniTrim(line.substr(1, close - 1)));
            const auto known =
                std::find_if(sections.begin(), sections.end(), [&](const auto& s) { return VoEqualsNoCase(s.name, name); });
            current = static_cast<size_t>(known - sections.begin());
            if (known == sections.end())
                sections.push_back({ name, {} });
            continue;
        }
        const size_t equals = line.find(L'=');
        if (line.starts_with(L';') || line.starts_with(L'#') || equals == std::wstring_view::npos || current == SIZE_MAX)
            continue;
        const std::wstring key(VoIniTrimRight(line.substr(0, equals)));
        std::wstring_view value = line.substr(equals + 1);
        while (!value.empty() && VoIniIsSpace(value.front()))
            value.remove_prefix(1);
        if (!key.empty())
            sections[current].entries.emplace_back(key, value);
    }
    return sections;
}

std::vector<CSection> SectionsOf(const CVoIniFileIO& file)
{
    std::vector<CSection> sections;
    std::vector<std::wstring_view> names;
    Require(SUCCEEDED(file.GetSectionNames(names)), "the sections cannot be listed");
    for (const std::wstring_view name : names)
    {
        std::vector<CVoIniEntry> entries;
        Require(SUCCEEDED(file.GetSection(name, entries)), "a section cannot be read");
        sections.push_back({ std::wstring(name), {} });
        for (const CVoIniEntry& entry : entries)
            sections.back().entries.emplace_back(entry.key, entry.value);
    }
    return sections;
}

std::string BytesOf(const CVoIniFileIO& file)
{
    std::string bytes;
    Require(SUCCEEDED(file.GetBytes(bytes)), "the bytes cannot be had");
    return bytes;
}

void Ini(std::wstring_view input)
{
    const std::string bytes = Bytes(input);
    CVoIniFileIO file;
    Require(SUCCEEDED(file.Parse(Guarded(bytes))), "a file cannot be read");
    Require(BytesOf(file) == bytes, "an unchanged file has other bytes");
    const bool wasModified = file.IsModified();
    const std::vector<CSection> before = SectionsOf(file);
    const auto expected = ReferenceIni(bytes);
    Require(!expected || before == expected, "the content differs from the reference");
    for (const CSection& section : before)
        for (const auto& [key, value] : section.entries)
        {
            const auto first = std::find_if(section.entries.begin(), section.entries.end(),
                                            [&](const auto& entry) { return VoEqualsNoCase(entry.first, key); });
            Require(file.FindValue(section.name, key) == first->second, "a look-up does not find the first of its name");
        }
    // One change: the rest stays, and the file reads back.
    const std::wstring section = before.empty() || input.size() % 3 == 0 ? L"New" : before[input.size() % before.size()].name;
    // Also one that cannot be read back.
    const std::wstring_view value = input.size() % 2 ? input : VoIniTrim(input.substr(0, input.find_first_of(L"\r\n")));
    const HRESULT hr = file.SetValue(section, L"Key", value);
    if (FAILED(hr))
    {
        Require(SectionsOf(file) == before, "a refused change changed the content");
        Require(BytesOf(file) == bytes, "a refused change changed the bytes");
        Require(file.IsModified() == wasModified, "a refused change counts as a change");
        return;
    }
    const std::vector<CSection> after = SectionsOf(file);
    Require(file.FindValue(section, L"key") == value, "a new value is not found");
    CVoIniFileIO again;
    std::string written;
    if (FAILED(file.GetBytes(written)))
        return; // ANSI text that would be read back as another encoding
    Require(SUCCEEDED(again.Parse(Guarded(written))) && SectionsOf(again) == after, "the changed file does not read back");
    for (const CSection& old : before)
        if (!VoEqualsNoCase(old.name, section))
            Require(std::find(after.begin(), after.end(), old) != after.end(), "another section was changed");
    // Each encoding holds the same text, in memory and in the file.
    for (const EVoTextEncoding encoding :
         { EVoTextEncoding::Utf16LittleEndian, EVoTextEncoding::Utf16BigEndian, EVoTextEncoding::Utf8WithMark })
    {
        if (FAILED(again.SetEncoding(encoding)))
            continue; // bytes that are no text
        CVoIniFileIO converted;
        const std::string bytesOfIt = BytesOf(again);
        Require(SUCCEEDED(converted.Parse(Guarded(bytesOfIt))) && converted.Encoding() == encoding &&
                    SectionsOf(converted) == after && SectionsOf(again) == after,
                "another encoding has another content");
    }
    Require(file.RemoveValue(section, L"KEY") == S_OK && !file.FindValue(section, L"Key"), "a removed value is found");
}

using OrvSignedIniFileHandler::CVoSignedIniFileHandler2;

void SignedIni(std::wstring_view input)
{
    CVoSignedIniFileHandler2 handler;
    CVoSignedIniFileHandler2 original;
    const std::string bytes = Bytes(input);
    Require(SUCCEEDED(handler.Parse(Guarded(bytes))) && SUCCEEDED(original.Parse(TestSupport::kKnownSignedFile)),
            "a file cannot be read");
    std::wstring text;
    std::wstring signedText;
    std::wstring data;
    Require(SUCCEEDED(handler.GetSignedText(text)) && SUCCEEDED(original.GetSignedText(signedText)) &&
                SUCCEEDED(handler.GetDataString(data)),
            "a canonical text cannot be made");
    std::wstring expected;
    for (const CSection& section : SectionsOf(handler.File()))
    {
        if (VoEqualsNoCase(section.name, L"Signature"))
            continue;
        expected += section.entries.empty() ? L"<EMPTY>" : L"[" + section.name + L"]\r\n";
        for (const auto& [key, value] : section.entries)
            expected.append(VoIniTrimRight(key)).append(L"=").append(VoIniTrimRight(value)).append(L"\r\n");
    }
    Require(data == expected && text == VoIniTrimRight(data), "the canonical text differs");
    bool valid = true;
    const HRESULT hr = handler.Verify(TestSupport::kKnownPublicKey, valid);
    Require(!valid || (SUCCEEDED(hr) && text == signedText), "a changed file is valid");
    Require(valid || bytes != TestSupport::kKnownSignedFile, "the signed file is not valid");
}

// The hexadecimal text of a public key: its numbers decide, whatever else is changed.
void Keys(std::wstring_view input)
{
    static const auto decode = [](std::wstring_view text) -> std::optional<std::string>
    {
        CVoByteBuffer bytes;
        if (FAILED(VoDataConversion::HexToBin(text, bytes.PutBytes(), bytes.PutLength())))
            return std::nullopt;
        return std::string(bytes.Bytes().begin(), bytes.Bytes().end());
    };
    static constexpr std::string_view kData = "data";
    static const auto* const data = reinterpret_cast<const BYTE*>(kData.data());
    static const std::string signature = []
    {
        const auto hash = OrvDigSign::CreateHashByName(L"sha256");
        CVoByteBuffer bytes;
        Require(SUCCEEDED(OrvDigSign::COrvDigitalSignature::SignString(data, kData.size(), *hash, TestSupport::kKnownPrivateKey,
                                                                       bytes.PutBytes(), bytes.PutLength())),
                "signing fails");
        return std::string(bytes.Bytes().begin(), bytes.Bytes().end());
    }();
    constexpr size_t kHeader = 12; // the type of the blob, and "RSA1"
    const std::optional<std::string> bytes = decode(input);
    const std::string good = *decode(TestSupport::kKnownPublicKey);
    const bool isSame =
        bytes && bytes->size() >= good.size() && bytes->substr(kHeader, good.size() - kHeader) == good.substr(kHeader);
    const auto hash = OrvDigSign::CreateHashByName(L"sha256");
    bool result = true;
    const HRESULT hr = OrvDigSign::COrvDigitalSignature::VerifyString(
        data, kData.size(), *hash, reinterpret_cast<const BYTE*>(signature.data()), static_cast<UINT32>(signature.size()),
        Guarded(input), result);
    Require(!result || (SUCCEEDED(hr) && isSame), "another key takes the signature for its own");
    Require(bytes || hr == E_INVALIDARG, "malformed hexadecimal text is taken");
    Require(input != TestSupport::kKnownPublicKey || result, "the key does not know its signature");
    std::wstring publicKey = L"old";
    const HRESULT derived = OrvDigSign::COrvRSAKey::GetPublicKeyFromPrivate(Guarded(input), publicKey);
    Require(SUCCEEDED(derived) == (publicKey != L"old"), "outputs and result disagree");
}

// ---- settings and parameters

void Settings(std::wstring_view input)
{
    static const std::filesystem::path folder = TestSupport::MakeTestFolder(L"settings");
    const std::string bytes = Bytes(input);
    TestSupport::WriteTestFile(folder / L"ModuleSettings.ini", bytes);
    std::vector<std::wstring> remarks;
    const CVoModuleSettings settings = VoReadModuleSettings(folder.wstring(), &remarks);
    const CVoModuleSettings defaults;
    Require(settings.cutOffSizeKiB >= 8192 && settings.cutOffSizeKiB <= 1048576 && settings.httpEngine <= 3,
            "a value out of range");
    // A value that is not the default, or a remark, comes from an entry of the file.
    const bool isDefault = settings.applicationLog == defaults.applicationLog && settings.httpEngine == defaults.httpEngine &&
                           settings.checkServerCertificate == defaults.checkServerCertificate && remarks.empty();
    Require(isDefault || bytes.find('=') != std::string::npos || bytes.find('\0') != std::string::npos,
            "a setting comes from nowhere");
}

// Every value that is set comes back, also through the file's bytes.
void TypedParameters(std::wstring_view input)
{
    static const std::wstring path = (TestSupport::MakeTestFolder(L"params") / L"p.ini").wstring();
    CVoParamHandler params;
    Require(SUCCEEDED(params.Open(path)), "a missing file cannot be opened");
    std::wstring text = L"default";
    const HRESULT hr = params.Set(L"S", L"text", Guarded(input));
    Require(SUCCEEDED(hr) == ReferenceToUtf8(input).has_value(), "well-formed text decides");
    Require(SUCCEEDED(params.Get(L"S", L"text", text)) && text == (SUCCEEDED(hr) ? std::wstring(input) : L"default"),
            "a text does not come back");
    const std::string bytes = Bytes(input);
    std::vector<BYTE> data(bytes.begin(), bytes.end());
    std::vector<BYTE> read;
    Require(SUCCEEDED(params.Set(L"S", L"bytes", std::span<const BYTE>(data))) && SUCCEEDED(params.Get(L"S", L"bytes", read)) &&
                read == data,
            "bytes do not come back");
    INT64 number = 0;
    std::memcpy(&number, bytes.data(), std::min(bytes.size(), sizeof number));
    double real = 0;
    std::memcpy(&real, &number, sizeof real);
    INT64 readNumber = 1;
    double readReal = 1;
    Require(SUCCEEDED(params.Set(L"S", L"n", number)) && SUCCEEDED(params.Get(L"S", L"n", readNumber)) && readNumber == number,
            "a number does not come back");
    Require(
        FAILED(params.Set(L"S", L"r", real)) == std::isnan(real) ||
            (SUCCEEDED(params.Get(L"S", L"r", readReal)) && readReal == real && std::signbit(readReal) == std::signbit(real)),
        "a real number does not come back");
}

// ---- the doctor's renderers

CVoDiagnosisReport ReportWith(const std::wstring& text)
{
    CVoDiagnosisReport report;
    report.url = report.summary = report.time = text;
    report.advice = { text, L"plain" };
    report.verdict = EVoVerdict::Network;
    CVoCheck check;
    check.id = "connect";
    check.name = check.detail = check.fix = check.summary = text;
    check.status = EVoCheckStatus::Fail;
    check.cause = "connect_refused";
    check.facts = { { "key", text },
                    { "list", std::vector<std::wstring>{ text, text } },
                    { "number", INT64{ 3 } },
                    { "records", CVoDiagnosisFact::CRecords{ { { "inner", text } } } } };
    report.checks = { check };
    CVoTimeline line;
    line.engine = "curl";
    line.remoteAddress = text;
    line.total = 1000;
    report.timelines = { line };
    return report;
}

// The page's tags without their content.
std::string TagsOf(const std::string& page)
{
    std::string tags;
    for (size_t at = page.find('<'); at != std::string::npos; at = page.find('<', at + 1))
        tags += page.substr(at, page.find_first_of(" >", at) - at);
    return tags;
}

void Renderers(std::wstring_view input)
{
    const std::wstring text(input.substr(0, 300));
    const CVoDiagnosisReport report = ReportWith(text);
    const std::string page = VoRenderHtml(report);
    static const std::string tags = TagsOf(VoRenderHtml(ReportWith(L"text")));
    static const std::string tagsOfEmpty = TagsOf(VoRenderHtml(ReportWith(L"")));
    Require(TagsOf(page) == (text.empty() ? tagsOfEmpty : tags), "a text makes tags of the page");
    Require(ReferenceFromUtf8(page).has_value(), "the page is no UTF-8");
    const nlohmann::json json = nlohmann::json::parse(VoRenderJson(report), nullptr, false);
    Require(!json.is_discarded(), "no JSON");
    std::string visible;
    Require(SUCCEEDED(VoStringToUTF8(VoVisibleText(text), visible)), "the visible text is not well formed");
    Require(json["url"] == visible && json["checks"][0]["name"] == visible, "JSON has another text");
    for (const bool unicode : { false, true })
        for (const auto& lines : { VoRenderCheck(report.checks[0], unicode), VoRenderConclusion(report, unicode),
                                   std::vector<CVoTextLine>{ VoRenderPass(report, unicode) } })
            for (const CVoTextLine& line : lines)
                for (const CVoTextPiece& piece : line)
                    Require(std::none_of(piece.text.begin(), piece.text.end(),
                                         [](wchar_t c)
                    {
                        return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x202A && c <= 0x202E) ||
                               (c >= 0x2066 && c <= 0x2069);
                    }),
                            "a control character is shown");
    Require(VoVisibleText(VoVisibleText(text), 10000) == VoVisibleText(text), "making visible is not stable");
}

const std::wstring kSigned = Units(TestSupport::kKnownSignedFile);

// clang-format off
const CCampaigns kFileCampaigns({
    { "ini",
      &Ini,
      { L"[A]\nx=1\n; c\n[b]\r\n y = 2 \r[a]\nX=3\n", L"\u00EF\u00BB\u00BF[\u00C3\u00BC]\nk\u00C3\u00BC=\u00E2\u0082\u00AC\n",
        L"\u00FF\u00FE[\0A\0]\0\n\0x\0=\0y\0"s, L"\u00FE\u00FF\0[\0A\0]\0\r\0\n\0x\0=\0y"s,
        L"a=b\n[A]\n=\n[B" },
      L"[]=;#\r\n \tabAX\u00C3\u00BC\0\u00FF\u0085"sv,
      2,
      true },
    { "signed_ini", &SignedIni, { kSigned, kSigned + L"[Signature2]\r\nx=1\r\n" }, L"[]=;#\r\n Sign", 20, true },
    { "keys", &Keys, { TestSupport::kKnownPublicKey, TestSupport::kKnownPrivateKey }, L"0123456789ABCDEFx ", 20 },
    { "settings", &Settings, { L"[DEBUG]\r\nAPPLOG=1\r\nAPPLOGCUTOFFSIZEINKBYTE=9000\r\n[SETTINGS]\r\nHTTPEngine=2\r\nHTTPCheckServerCert=no\r\n", L"[settings]\r\nhttpengine=4\r\n" }, L"[]=;\r\n \"019-", 40, true },
    { "typed_parameters", &TypedParameters, { L"text", L" \"quoted\" $r$n$$ ", L"line\r\nline", L"\0\u00F0?"s }, L"\"$rn \r\n\t=;[\u00A0\u20AC\xD800", 8 },
    { "renderers", &Renderers, { L"<script>alert(1)</script>", L"\u202Ea\x1B[31m", L"&amp;\"'", L"\xD83D\xDE00 \xD83D" }, L"<>&\"'\\\x1B\u202E\u200F\uFEFF /u", 20 },
});
// clang-format on
} // namespace
} // namespace Stress
