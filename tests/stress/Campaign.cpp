// Makes, runs and minimises random inputs (Campaign.h).
#include "Campaign.h"

#include <support/TestMain.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace Stress
{
namespace
{
std::optional<unsigned> Setting(const char* name)
{
    const char* const text = std::getenv(name);
    return text && *text ? std::optional(static_cast<unsigned>(std::strtoul(text, nullptr, 10))) : std::nullopt;
}

// The share of the time that a test gets.
unsigned WeightOf(const testing::TestInfo& test)
{
    const std::string_view suite = test.test_suite_name();
    return suite == "Inputs" ? 2 : 15;
}

std::string NameOfRunning()
{
    const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
    return std::string(test->test_suite_name()) + '.' + test->name();
}

// Where the running property begins. A fault of the platform in it continues there, so that its input can be minimised.
CONTEXT g_start;
volatile bool g_isArmed = false;
volatile bool g_hasFaulted = false;
LPTOP_LEVEL_EXCEPTION_FILTER g_nextFilter = nullptr;

LONG WINAPI OnFault(EXCEPTION_POINTERS* pointers)
{
    if (!g_isArmed || pointers->ExceptionRecord->ExceptionCode != EXCEPTION_ACCESS_VIOLATION)
        return g_nextFilter ? g_nextFilter(pointers) : EXCEPTION_CONTINUE_SEARCH;
    g_isArmed = false;
    g_hasFaulted = true;
    *pointers->ContextRecord = g_start;
    return EXCEPTION_CONTINUE_EXECUTION;
}

// Why the property does not hold; empty when it does.
VO_NOINLINE std::string Try(CProperty property, std::wstring_view input)
{
    g_hasFaulted = false;
    ::RtlCaptureContext(&g_start);
    if (g_hasFaulted)
        return "access violation: it reads or writes outside of a buffer";
    try
    {
        g_isArmed = true;
        property(input);
        g_isArmed = false;
        return {};
    }
    catch (const std::exception& exception)
    {
        g_isArmed = false;
        return exception.what();
    }
}

// Removes pieces of the input and simplifies characters as long as the property stays broken.
std::wstring Minimise(CProperty property, std::wstring input)
{
    const auto isBroken = [&](const std::wstring& shorter)
    {
        TestSupport::NoteProgress("minimising");
        return !Try(property, shorter).empty();
    };
    for (size_t piece = std::max<size_t>(1, input.size() / 2); piece > 0;)
    {
        bool isShorter = false;
        for (size_t at = 0; at + piece <= input.size();)
        {
            std::wstring shorter = input;
            shorter.erase(at, piece);
            if (isBroken(shorter))
            {
                input = std::move(shorter);
                isShorter = true;
            }
            else
                at += piece;
        }
        if (!isShorter || piece > input.size())
            piece /= 2;
    }
    for (wchar_t& unit : input)
        for (const wchar_t simple : { L'a', L' ' })
            if (unit != simple)
            {
                const wchar_t before = std::exchange(unit, simple);
                if (isBroken(input))
                    break;
                unit = before;
            }
    return input;
}

class CMutator
{
public:
    CMutator(const CCampaign& campaign, CRandom& random) : m_campaign(campaign), m_random(random) {}

    [[nodiscard]] std::wstring Make()
    {
        std::wstring input;
        switch (m_random() % 16)
        {
        case 0: // an example as it is
            return Example();
        case 1: // characters alone
        case 2:
            for (size_t size = m_random() % 40; input.size() < size;)
                input += Character();
            return input;
        default:
            break;
        }
        input = Example();
        for (size_t count = 1 + m_random() % 6; count > 0; --count)
            Change(input);
        if (input.size() > kLongest)
            input.resize(kLongest);
        return input;
    }

private:
    static constexpr size_t kLongest = 4000;

    [[nodiscard]] const std::wstring& Example() { return m_campaign.examples[m_random() % m_campaign.examples.size()]; }
    [[nodiscard]] wchar_t Character()
    {
        const auto any = m_random();
        if (any % 16 != 0 && !m_campaign.characters.empty())
            return m_campaign.characters[any / 16 % m_campaign.characters.size()];
        if (m_campaign.isBytes)
            return static_cast<wchar_t>(any / 16 % 256);
        // Often ASCII, sometimes any unit, unpaired surrogates included.
        return static_cast<wchar_t>(any / 32 % (any % 32 == 0 ? 0x10000 : 0x100));
    }
    [[nodiscard]] std::wstring Piece(const std::wstring& text)
    {
        const size_t at = text.empty() ? 0 : m_random() % text.size();
        return text.substr(at, 1 + m_random() % 12);
    }
    void Change(std::wstring& input)
    {
        const size_t at = m_random() % (input.size() + 1);
        const size_t length = 1 + m_random() % (m_random() % 8 == 0 ? 40 : 4);
        switch (m_random() % 8)
        {
        case 0:
            input.erase(at, length);
            break;
        case 1:
            if (at < input.size())
                input[at] = Character();
            break;
        case 2:
            input.insert(at, 1, Character());
            break;
        case 3:
            input.insert(at, m_random() % 16 == 0 ? 1 + m_random() % 300 : length, Character());
            break;
        case 4:
            input.insert(at, Piece(input));
            break;
        case 5:
            input.insert(at, Piece(Example()));
            break;
        case 6:
            if (at < input.size())
                input[at] = static_cast<wchar_t>(input[at] ^ (1U << m_random() % (m_campaign.isBytes ? 8 : 16)));
            break;
        default:
            input.replace(at, length, Example());
            break;
        }
    }

    const CCampaign& m_campaign;
    CRandom& m_random;
};

bool g_guardsTheBeginning = false;

class CCampaignTest final : public testing::Test
{
public:
    explicit CCampaignTest(const CCampaign& campaign) : m_campaign(campaign) {}

    void TestBody() override
    {
        CRounds rounds(kInputsWithoutTime / m_campaign.cost);
        while (rounds.Next())
        {
            CRandom random = rounds.Random();
            const std::wstring input = CMutator(m_campaign, random).Make();
            g_guardsTheBeginning = rounds.Round() % 2 != 0;
            const std::string complaint = Try(m_campaign.property, input);
            if (complaint.empty())
                continue;
            const std::wstring least = Minimise(m_campaign.property, input);
            FAIL() << m_campaign.name << ": " << complaint << "\n  input: " << Printable(input)
                   << "\n  minimised: " << Printable(least) << "\n    (" << Try(m_campaign.property, least)
                   << ")\n  repeat: " << rounds.Command();
        }
    }

private:
    static constexpr unsigned kInputsWithoutTime = 4000;

    const CCampaign& m_campaign;
};

// Pages with an inaccessible page at both ends.
template <class Unit>
class CArena
{
public:
    CArena() : m_memory(static_cast<BYTE*>(::VirtualAlloc(nullptr, kSize + 2 * kPage, MEM_RESERVE, PAGE_NOACCESS)))
    {
        if (!m_memory || !::VirtualAlloc(m_memory + kPage, kSize, MEM_COMMIT, PAGE_READWRITE))
            throw std::bad_alloc();
    }
    [[nodiscard]] std::basic_string_view<Unit> Put(std::basic_string_view<Unit> text)
    {
        Require(text.size() * sizeof(Unit) <= kSize, "the text is too long for its guarded memory");
        BYTE* const begin = m_memory + kPage + (g_guardsTheBeginning ? 0 : kSize - text.size() * sizeof(Unit));
        std::memcpy(begin, text.data(), text.size() * sizeof(Unit));
        return { static_cast<const Unit*>(static_cast<void*>(begin)), text.size() };
    }

private:
    static constexpr size_t kPage = 4096;
    static constexpr size_t kSize = 16 * kPage;

    BYTE* m_memory;
};

template <class Unit>
std::basic_string_view<Unit> Guard(std::basic_string_view<Unit> text)
{
    static std::array<CArena<Unit>, 4> arenas;
    static size_t next = 0;
    return arenas[next++ % arenas.size()].Put(text);
}
} // namespace

unsigned FirstSeed()
{
    return Setting("VOUTILS_STRESS_SEED").value_or(1);
}

std::optional<unsigned> OnlyInput()
{
    return Setting("VOUTILS_STRESS_INPUT");
}

bool IsShort()
{
    return !Setting("VOUTILS_STRESS_MINUTES");
}

CRounds::CRounds(unsigned roundsWithoutTime, unsigned leastRounds)
    : m_name(NameOfRunning()), m_seed(FirstSeed()), m_least(leastRounds), m_last(roundsWithoutTime)
{
    if (const std::optional<unsigned> only = OnlyInput())
    {
        m_round = *only;
        m_last = *only + 1;
    }
    else if (const std::optional<unsigned> minutes = Setting("VOUTILS_STRESS_MINUTES"))
    {
        const testing::UnitTest& tests = *testing::UnitTest::GetInstance();
        unsigned all = 0;
        for (int suite = 0; suite < tests.total_test_suite_count(); ++suite)
            for (int i = 0; i < tests.GetTestSuite(suite)->total_test_count(); ++i)
                if (const testing::TestInfo& test = *tests.GetTestSuite(suite)->GetTestInfo(i); test.should_run())
                    all += WeightOf(test);
        const auto seconds = std::chrono::seconds(*minutes * 60);
        m_end = CClock::now() + seconds * WeightOf(*tests.current_test_info()) / std::max(all, 1U);
    }
}

bool CRounds::Next()
{
    if (std::exchange(m_hasBegun, true))
        ++m_round;
    const bool goesOn = m_end ? m_round < m_least || CClock::now() < *m_end : m_round < m_last;
    if (CClock::now() >= m_nextLine)
    {
        std::printf("stress: %s: %u rounds\n", m_name.c_str(), m_round);
        std::fflush(stdout);
        m_nextLine = CClock::now() + std::chrono::seconds(10);
    }
    if (goesOn)
        TestSupport::NoteProgress(Command().c_str());
    else
        testing::Test::RecordProperty("rounds", static_cast<int>(m_round));
    return goesOn;
}

CRandom CRounds::Random() const
{
    // Neighbouring numbers must not give similar sequences.
    return CRandom((m_seed * 0x9E3779B9U) ^ (m_round * 0x85EBCA6BU + 1));
}

std::string CRounds::Command() const
{
    return "./stress " + m_name + " --seed " + std::to_string(m_seed) + " --input " + std::to_string(m_round);
}

CCampaigns::CCampaigns(std::vector<CCampaign> campaigns)
{
    for (CCampaign& campaign : campaigns)
    {
        // The campaign lives as long as its test.
        const auto kept = std::make_shared<const CCampaign>(std::move(campaign));
        testing::RegisterTest("Inputs", kept->name, nullptr, nullptr, __FILE__, __LINE__, [kept]() -> testing::Test*
        {
            static const bool once = []
            {
                g_nextFilter = ::SetUnhandledExceptionFilter(&OnFault);
                return true;
            }();
            (void)once;
            return std::make_unique<CCampaignTest>(*kept).release(); // the framework deletes it
        });
    }
}

std::wstring_view Guarded(std::wstring_view text)
{
    return Guard(text);
}

std::string_view Guarded(std::string_view bytes)
{
    return Guard(bytes);
}

std::string Bytes(std::wstring_view input)
{
    std::string bytes(input.size(), '\0');
    std::transform(input.begin(), input.end(), bytes.begin(), [](wchar_t unit) { return static_cast<char>(unit); });
    return bytes;
}

std::wstring Units(std::string_view bytes)
{
    std::wstring units(bytes.size(), L'\0');
    std::transform(bytes.begin(), bytes.end(), units.begin(), [](char c) { return wchar_t{ static_cast<BYTE>(c) }; });
    return units;
}

std::optional<std::string> ReferenceToUtf8(std::wstring_view text)
{
    constexpr std::array<UINT32, 3> kFirstLonger = { 0x80, 0x800, 0x10000 };
    constexpr std::array<int, 4> kLeads = { 0, 0xC0, 0xE0, 0xF0 };
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i)
    {
        UINT32 code = text[i];
        if (code >= 0xD800 && code < 0xE000)
        {
            if (code >= 0xDC00 || i + 1 == text.size() || text[i + 1] < 0xDC00 || text[i + 1] > 0xDFFF)
                return std::nullopt;
            code = 0x10000 + ((code - 0xD800) << 10) + (text[++i] - 0xDC00U);
        }
        const auto more = std::count_if(kFirstLonger.begin(), kFirstLonger.end(), [&](UINT32 first) { return code >= first; });
        bytes += static_cast<char>(kLeads[static_cast<size_t>(more)] | static_cast<int>(code >> (6 * more)));
        for (auto left = more - 1; left >= 0; --left)
            bytes += static_cast<char>(0x80 | (code >> (6 * left) & 0x3F));
    }
    return bytes;
}

std::optional<std::wstring> ReferenceFromUtf8(std::string_view bytes)
{
    std::wstring text;
    for (size_t i = 0; i < bytes.size();)
    {
        const auto lead = static_cast<BYTE>(bytes[i++]);
        constexpr std::array<int, 3> kFirstLonger = { 0xC2, 0xE0, 0xF0 };
        const auto more = std::count_if(kFirstLonger.begin(), kFirstLonger.end(), [&](int first) { return lead >= first; });
        if ((lead >= 0x80 && lead < 0xC2) || lead > 0xF4 || bytes.size() - i < static_cast<size_t>(more))
            return std::nullopt;
        UINT32 code = more == 0 ? lead : lead & (0x3FU >> more);
        for (auto left = more; left > 0; --left, ++i)
        {
            if ((static_cast<BYTE>(bytes[i]) & 0xC0) != 0x80)
                return std::nullopt;
            code = code << 6 | (static_cast<BYTE>(bytes[i]) & 0x3FU);
        }
        if ((more == 2 && (code < 0x800 || (code >= 0xD800 && code < 0xE000))) ||
            (more == 3 && (code < 0x10000 || code > 0x10FFFF)))
            return std::nullopt;
        if (code >= 0x10000)
            text += static_cast<wchar_t>(0xD800 + ((code - 0x10000) >> 10));
        text += static_cast<wchar_t>(code >= 0x10000 ? 0xDC00 + (code & 0x3FF) : code);
    }
    return text;
}

std::string Printable(std::wstring_view text)
{
    std::string result = "L\"";
    std::array<char, 8> escape;
    for (const wchar_t unit : text)
        if (unit >= L' ' && unit < 0x7F && unit != L'"' && unit != L'\\')
            result += static_cast<char>(unit);
        else
        {
            std::snprintf(escape.data(), escape.size(), "\\x%X\"\"", unsigned{ unit });
            result += escape.data();
        }
    return result + "\" (" + std::to_string(text.size()) + " units)";
}
} // namespace Stress
