// The campaigns of random inputs: each has example inputs, characters that mean something, and a property. One mutator makes
// the inputs, one minimiser shortens an input that breaks a property.
//
//     const CCampaigns kCampaigns({
//         { "hex", &Hex, { L"0A1B", L"01:f0" }, L"0aF:- \r\n" },
//     });
//
// Every campaign becomes a test "Inputs.<name>". The environment decides how much is done (./stress sets it):
//   VOUTILS_STRESS_SEED     the first number of the random sequence; 1
//   VOUTILS_STRESS_MINUTES  for all tests that run, shared by weight; without it each does a small fixed amount
//   VOUTILS_STRESS_INPUT    the number of one input or round, to repeat it
#pragma once

#include <base/VoPlatform.h>

#include <array>
#include <chrono>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Stress
{
using CRandom = std::mt19937;

// Thrown where a property does not hold.
class CBroken : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};
// Without arguments, a property that holds costs nothing but the comparison.
inline void Require(bool holds, const char* what)
{
    if (!holds)
        throw CBroken(what);
}

// Throws when the property does not hold for an input.
using CProperty = void (*)(std::wstring_view input);

struct CCampaign
{
    const char* name;
    CProperty property;
    std::vector<std::wstring> examples;
    std::wstring_view characters;
    unsigned cost = 1;    // of an input, in units of 50 microseconds or so: fewer inputs are made where no time is given
    bool isBytes = false; // units up to 255
};

// Registers tests for campaigns, and for everything else that runs in rounds, before main.
class CCampaigns
{
public:
    explicit CCampaigns(std::vector<CCampaign> campaigns);
};

// What the environment asks for.
[[nodiscard]] unsigned FirstSeed();
[[nodiscard]] std::optional<unsigned> OnlyInput();
[[nodiscard]] bool IsShort(); // no time was given

// How long the running test goes on: a number of rounds, or its share of the minutes.
class CRounds
{
public:
    explicit CRounds(unsigned roundsWithoutTime, unsigned leastRounds = 1);
    // Whether another round begins. Notes it for a crash or a hang, and prints a line every ten seconds.
    [[nodiscard]] bool Next();
    [[nodiscard]] unsigned Round() const noexcept { return m_round; }
    // A random sequence of its own for each round and seed.
    [[nodiscard]] CRandom Random() const;
    // The command that repeats this round.
    [[nodiscard]] std::string Command() const;

private:
    using CClock = std::chrono::steady_clock;

    const std::string m_name;
    const unsigned m_seed;
    unsigned m_round = 0;
    const unsigned m_least;
    unsigned m_last;
    bool m_hasBegun = false;
    std::optional<CClock::time_point> m_end;
    CClock::time_point m_nextLine = CClock::now() + std::chrono::seconds(10);
};

// A copy of a text whose end, or for every other input whose beginning, stands at an inaccessible page. The last four of a
// thread are valid.
[[nodiscard]] std::wstring_view Guarded(std::wstring_view text);
[[nodiscard]] std::string_view Guarded(std::string_view bytes);

// The low byte of each unit.
[[nodiscard]] std::string Bytes(std::wstring_view input);
// One character for each byte.
[[nodiscard]] std::wstring Units(std::string_view bytes);
// UTF-8 by the letter of RFC 3629; nothing for malformed text.
[[nodiscard]] std::optional<std::string> ReferenceToUtf8(std::wstring_view text);
[[nodiscard]] std::optional<std::wstring> ReferenceFromUtf8(std::string_view bytes);
// A text that is fit for a message, in ASCII.
[[nodiscard]] std::string Printable(std::wstring_view text);
} // namespace Stress
