// Tests of error texts, the error box and the translator module.
#include <base/VoErrorHandler.h>
#include <base/VoErrorText.h>
#include <base/VoErrorTranslator.h>
#include <base/VoUtils.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace TestSupport;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{
std::wstring g_shown;
} // namespace

// The test program is a translator module too: it exports what one must.
extern "C"
{
    __declspec(dllexport) HRESULT WINAPI GetErrorString(HRESULT code, BSTR* text)
    {
        if (code != static_cast<HRESULT>(0x81040001))
            return E_INVALIDARG;
        *text = ::SysAllocString(L"translated");
        return S_OK;
    }

    __declspec(dllexport) HRESULT WINAPI ShowErrorMessageWindow(HRESULT code, const wchar_t* text)
    {
        g_shown = VoFormat(L"%X %ls", static_cast<unsigned>(code), text);
        return S_OK;
    }
}

namespace
{
constexpr const wchar_t* kFallback = L"Unknown system error occured!";
constexpr HRESULT kTranslated = static_cast<HRESULT>(0x81040001);

// FormatMessageW, with its last argument in a form that a template takes on every compiler.
using FormatMessageFunction = DWORD(WINAPI*)(DWORD, LPCVOID, DWORD, DWORD, LPWSTR, DWORD, void*);

std::wstring ProgramName()
{
    std::wstring name;
    EXPECT_EQ(GetModuleDirAndFileName(nullptr, nullptr, &name), S_OK);
    return name;
}

TEST(ErrorText, TheFacilityDecidesWhereTheTextComesFrom)
{
    // What FormatMessageW is asked for; the wording is the platform's own.
    DWORD id = 0;
    DWORD flags = 0;
    const CCallHook<FormatMessageFunction> hook(
        "kernel32.dll", "FormatMessageW",
        [&](auto, DWORD askedFlags, LPCVOID, DWORD askedId, DWORD language, LPWSTR buffer, DWORD, void*) -> DWORD
    {
        // A system without texts in the user's language.
        if (language != 0)
            return ::SetLastError(ERROR_RESOURCE_LANG_NOT_FOUND), 0;
        flags = askedFlags;
        id = askedId;
        // As the platform does: from the local heap.
        auto* text = static_cast<wchar_t*>(::LocalAlloc(LMEM_FIXED, 100));
        std::memcpy(buffer, static_cast<const void*>(&text), sizeof text);
        return static_cast<DWORD>(std::wstring_view(L"The text.\r\n").copy(text, 50));
    });
    const CAcquireBalance memory =
        CAcquireBalance::Of<decltype(&::LocalAlloc), decltype(&::LocalFree)>("kernel32.dll", "LocalAlloc", "LocalFree");
    const CAcquireBalance modules = CAcquireBalance::Of<decltype(&::LoadLibraryExW), decltype(&::FreeLibrary)>(
        "kernel32.dll", "LoadLibraryExW", "FreeLibrary");
    const CCallHook<decltype(&::LoadLibraryExW)> load("kernel32.dll", "LoadLibraryExW",
                                                      [](auto original, LPCWSTR name, HANDLE file, DWORD how)
    {
        EXPECT_TRUE(how & LOAD_LIBRARY_SEARCH_SYSTEM32) << "a file of that name elsewhere is another one";
        return original(name, file, how);
    });
    for (const auto& [code, expectedId, source] : { std::tuple(0x80070002u, 2u, FORMAT_MESSAGE_FROM_SYSTEM),
                                                    { 0x80072EDFu, 11999u, FORMAT_MESSAGE_FROM_SYSTEM },
                                                    { 0x80072EE0u, 12000u, FORMAT_MESSAGE_FROM_HMODULE },
                                                    { 0x80072FA0u, 12192u, FORMAT_MESSAGE_FROM_HMODULE },
                                                    { 0x80072FA1u, 12193u, FORMAT_MESSAGE_FROM_SYSTEM },
                                                    { 0x80040154u, 0x80040154u, FORMAT_MESSAGE_FROM_SYSTEM },
                                                    { 0x81020007u, 0x81020007u, FORMAT_MESSAGE_FROM_SYSTEM } })
    {
        std::wstring text;
        EXPECT_EQ(VoGetErrorText(static_cast<HRESULT>(code), false, &text), S_OK);
        EXPECT_EQ(text, L"The text.");
        EXPECT_EQ(id, expectedId);
        EXPECT_EQ(flags, FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | static_cast<DWORD>(source));
        EXPECT_EQ(memory.Open() + modules.Open(), 0);
    }
}

TEST(ErrorText, TheFlagDecidesWhenThereIsNoText)
{
    for (const unsigned code : { 0x81030000u, 0x81030007u, 0x01030001u, 0x81040001u })
    {
        std::wstring text = L"before";
        EXPECT_EQ(VoGetErrorText(static_cast<HRESULT>(code), false, &text), E_FAIL);
        EXPECT_EQ(text, L"before");
        EXPECT_EQ(VoGetErrorText(static_cast<HRESULT>(code), true, &text), S_OK);
        EXPECT_EQ(text, kFallback);
    }
    // A server that cannot be resolved: the text is in wininet.dll.
    std::wstring text;
    EXPECT_EQ(VoGetErrorText(HResultFromWin32(12007), false, &text), S_OK);
    EXPECT_FALSE(text.empty() || text.ends_with(L'\n'));
}

TEST(ErrorText, IsShownInABoxWithTheCaptionError)
{
    std::wstring shown;
    int result = IDOK;
    const CCallHook<decltype(&::MessageBoxW)> hook("user32.dll", "MessageBoxW",
                                                   [&](auto, HWND, LPCWSTR text, LPCWSTR title, UINT) -> int
    {
        shown += VoFormat(L"<%ls: %ls>", title, text);
        ::SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return result;
    });
    constexpr auto kWithoutText = static_cast<HRESULT>(0x81030000);
    EXPECT_EQ(VoShowError(kErrorSignature, false), S_OK);
    EXPECT_EQ(VoShowError(kWithoutText, true), S_OK);
    const CLogCapture log;
    EXPECT_EQ(VoShowError(kWithoutText, false), E_FAIL) << "nothing to show";
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"VoGetErrorText", E_FAIL), IsReportBy(L"VoShowError", E_FAIL)));
    EXPECT_EQ(shown, L"<Error: The signature does not match the data.><Error: Unknown system error occured!>");
    result = 0;
    EXPECT_EQ(VoShowError(kErrorSignature, false), HResultFromWin32(ERROR_INVALID_WINDOW_HANDLE));
}

TEST(ErrorTranslator, NeedsBothExportsAndReleasesAModuleWithoutThem)
{
    const CAcquireBalance modules = CAcquireBalance::Of<decltype(&::GetModuleHandleExW), decltype(&::FreeLibrary)>(
        "kernel32.dll", "GetModuleHandleExW", "FreeLibrary");
    for (const int missing : { 1, 2 })
    {
        const CLogCapture log;
        const CFailOnCall<decltype(&::GetProcAddress)> fail("kernel32.dll", "GetProcAddress", missing, nullptr,
                                                            ERROR_PROC_NOT_FOUND);
        CVoErrorTranslator translator;
        EXPECT_EQ(translator.TakeLoaded(ProgramName().c_str()), HResultFromWin32(ERROR_PROC_NOT_FOUND));
        EXPECT_EQ(::GetLastError(), DWORD{ ERROR_PROC_NOT_FOUND });
        EXPECT_THAT(log.Lines(),
                    testing::Contains(IsReportBy(L"CVoErrorTranslator::TakeLoaded", HResultFromWin32(ERROR_PROC_NOT_FOUND))));
        EXPECT_FALSE(translator.IsLoaded());
        EXPECT_EQ(modules.Open(), 0);
    }
}

// What a process sees that has its translator switched on: message boxes, codes and texts. The translator is loaded once, so
// each outcome needs a process of its own. `loadedModule`: null for the file of the common programs.
void ShowOutcome(const wchar_t* loadedModule)
{
    VoErrorLog().SetUseErrorTranslator(true);
    const CCallHook<decltype(&::MessageBoxW)> hook("user32.dll", "MessageBoxW",
                                                   [](auto, HWND, LPCWSTR text, LPCWSTR caption, UINT) -> int
    {
        std::fprintf(stderr, "<%ls: %ls>", caption, text);
        return IDOK;
    });
    std::wstring text;
    const HRESULT codes[] = { VoLoadErrorTranslator(loadedModule), VoGetErrorText(kTranslated, false, &text),
                              VoShowError(kTranslated, false), VoLoadErrorTranslator(nullptr) };
    for (const HRESULT code : codes)
        std::fprintf(stderr, " %lx", static_cast<unsigned long>(code));
    std::fprintf(stderr, " [%ls] [%ls]", text.c_str(), g_shown.c_str());
    std::exit(0);
}

TEST(ErrorTranslatorDeathTest, IsLoadedOnceAndShowsAFailureOnce)
{
    const std::pair<std::wstring, const char*> cases[] = {
        { ProgramName(), " 0 0 0 0 [translated] [81040001 translated]" },
        { L"no such module", "<Error: Error getting 'modulehandle' lib (126)> 8007007e 80004005 80004005 8007007e [] []" },
    };
    for (const auto& [module, outcome] : cases)
        EXPECT_EXIT(ShowOutcome(module.c_str()), testing::ExitedWithCode(0), HasSubstr(outcome));
    EXPECT_EXIT(ShowOutcome(nullptr), testing::ExitedWithCode(0),
                testing::AllOf(HasSubstr("<Error: Error loading lib ["),
                               HasSubstr("\\Kestrelan\\ErrorTranslator.dll] (126)> 8007007e 80004005 80004005 8007007e")));
}
} // namespace
