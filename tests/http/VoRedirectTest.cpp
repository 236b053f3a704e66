// Where a Location header leads, and which ones are refused.
#include "support/HTTPSupport.h"

#include "VoRedirect.h"

#include <gtest/gtest.h>

using namespace TestSupport;

namespace
{
TEST(Redirect, LeadsWhereTheReferenceSays)
{
    // The base's path and query matter for relative references. The first rows are examples of RFC 3986, section 5.4.
    constexpr const wchar_t* kBase = L"http://o.example:81/b/c/d;p?q";
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        { L"g", L"http://o.example:81/b/c/g" },
        { L"./g", L"http://o.example:81/b/c/g" },
        { L"g/", L"http://o.example:81/b/c/g/" },
        { L"/g", L"http://o.example:81/g" },
        { L"//g.example", L"http://g.example" },
        { L"?y", L"http://o.example:81/b/c/d;p?y" },
        { L"g?y#s", L"http://o.example:81/b/c/g?y" },
        { L"#s", L"http://o.example:81/b/c/d;p?q" },
        { L";x", L"http://o.example:81/b/c/;x" },
        { L".", L"http://o.example:81/b/c/" },
        { L"..", L"http://o.example:81/b/" },
        { L"../../../g", L"http://o.example:81/g" },
        { L"/./g/../h/.", L"http://o.example:81/h/" },
        { L"g?y/../x", L"http://o.example:81/b/c/g?y/../x" },
        { L"HTTPS://Other.Example:443/x", L"https://Other.Example/x" },
        { L"http://[::1]:80/", L"http://[::1]/" },
        { L" \thttp://a.example/x y \t", L"http://a.example/x y" },
        { L"/\u00E4?to=http://bank.example/\\@x", L"http://o.example:81/\u00E4?to=http://bank.example/\\@x" },
    };
    for (const auto& [location, expected] : cases)
    {
        CServerAddressData target;
        EXPECT_EQ(VoResolveRedirect(Address(kBase), location, target), S_OK) << testing::PrintToString(location);
        EXPECT_EQ(target.FullURL(), expected);
    }
}

TEST(Redirect, WhatTwoReadersCouldReadDifferentlyIsRefused)
{
    const wchar_t* const refused[] = { // no target, and other schemes
                                       L"", L" ", L"http://", L"ftp://a/", L"x:y/z",
                                       // slashes that are missing or of another kind
                                       L"http:x", L"http:/x", L"http:\\\\a", L"/\\a", L"\\\\a\\b", L"http://a\\@b/",
                                       // hosts
                                       L"http://u@a/", L"\u00A0http://a/", L"http://a b/", L"http://a\u00E4/", L"http://a%2e/",
                                       L"http://[::1/", L"http://a:99999/", L"http://a:8x/",
                                       // control characters
                                       L"ht\ttp://a/", L"http://a\r\nX: y/", L"/x\x7F"
    };
    for (const wchar_t* const location : refused)
    {
        CServerAddressData target = Address(L"http://kept.example/");
        EXPECT_EQ(VoResolveRedirect(Address(L"http://o.example/"), location, target), E_INVALIDARG)
            << testing::PrintToString(location);
        EXPECT_EQ(target.FullURL(), L"http://kept.example/");
    }
}
} // namespace
