// The texts of an exchange record: what is hidden, and how header blocks are read.
#include <VoExchangeText.h>

#include <gtest/gtest.h>

namespace
{
TEST(ExchangeText, HeadersKeepTheirOrderAndLoseTheirSecrets)
{
    std::wstring statusLine;
    std::vector<CVoHTTPHeader> headers;
    VoSplitHeader(L"HTTP/1.1 407 Who?\r\nX-A: 1\r\n \t2\r\nno colon\r\n dropped: too\r\nSet-Cookie: id=s3cr3t; "
                  L"Path=/\r\nset-cookie: s3cr3t\r\n"
                  L"Location: http://u:s3cr3t@h/p?s3cr3t\r\nProxy-Authenticate: NTLM s3cr3t==\r\n"
                  L"Proxy-Authenticate: Digest realm=\"s3cr3t, Basic x\", nonce=s3cr3t, Basic realm=\"a\\\"b\"\r\n"
                  L"Authentication-Info: s3cr3t\nX-Auth-Token: s3cr3t\nX-From: http://h/?s3cr3t\nX-a:  \r\n\r\n",
                  statusLine, headers);
    EXPECT_EQ(statusLine, L"HTTP/1.1 407 Who?");
    EXPECT_EQ(VoStatusCode(statusLine), 407U);
    EXPECT_EQ(VoChallengeSchemes(headers), (std::vector<std::wstring>{ L"NTLM", L"Digest", L"Basic" }));
    VoHideSecrets(headers);
    std::wstring text;
    for (const CVoHTTPHeader& header : headers)
        text += header.name + L"=" + header.value + L"\n";
    EXPECT_EQ(text, L"X-A=1 2\nSet-Cookie=id=<hidden>; Path=/\nset-cookie=<hidden>\nLocation=http://h/p?<6 characters>\n"
                    L"Proxy-Authenticate=NTLM <hidden>\nProxy-Authenticate=Digest, Basic <hidden>\n"
                    L"Authentication-Info=<hidden>\nX-Auth-Token=<hidden>\nX-From=http://h/?<6 characters>\nX-a=\n");
    for (const wchar_t* const line : { L"", L"HTTP/1.1", L"HTTP/1.1 x", L"HTTP/1.1 99999999999" })
        EXPECT_EQ(VoStatusCode(line), 0U);
}

TEST(ExchangeText, AFieldIsFoundByItsNameAndNumber)
{
    CVoResponseHeader header;
    header.Set(L"HTTP/1.1 200 X-A: 0\r\nX-A: 1\r\n \t2\r\nX-AB: 3\r\nx-a:4\n: 5\r\n");
    EXPECT_EQ(header.Find(L"X-A", 0), L"1 2");
    EXPECT_EQ(header.Find(L"X-A", 1), L"4");
    EXPECT_EQ(header.Find(L"X-A", 2), std::nullopt);
    EXPECT_EQ(header.Find(L"", 0), L"5");
    header.Set({});
    EXPECT_EQ(header.Find(L"X-A", 0), std::nullopt);
}
} // namespace
