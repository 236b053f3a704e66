// A first request: posts one parameter to the URL on the command line and prints the parameters of the response.
#include <VoHTTPClient.h>

#include <cstdio>

int wmain(int, wchar_t** arguments)
{
    CVoHTTPClient client(arguments[1] ? arguments[1] : L"");
    const CVoHTTPResponse response = client.Post({ { L"name", L"value" } });
    for (size_t i = 0; i < response.parameters.GetCount(); ++i)
        std::printf("%ls=%ls\n", response.parameters.GetAt(i).Name().c_str(), response.parameters.GetAt(i).Value().c_str());
    if (!response.IsOk())
        std::fprintf(stderr, "%ls (0x%08lX)\n", response.reason.c_str(), static_cast<unsigned long>(response.result));
    return response.IsOk() ? 0 : 1;
}
