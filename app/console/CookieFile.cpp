// --cookies and --jar: the cookie store in a file.
#include "CookieFile.h"

#include "Files.h"

#include <base/VoText.h>
#include <base/com/VoComHelper.h>

void LoadCookies(CContext& context, const std::string& file)
{
    if (file.empty() || !FileExists(FromUtf8(file)))
        return;
    const CVoBstr data(context.ReadTextFile(file));
    if (const HRESULT hr = context.Process().CookieStore().Deserialize(data.Get()); FAILED(hr))
        throw CDetailedFailure(hr, file);
}

void SaveCookies(CContext& context, const std::string& file)
{
    if (file.empty())
        return;
    CVoBstr data;
    Check(context.Process().CookieStore().Serialize(data.Put()));
    const std::string text = ToUtf8(data.View());
    context.WriteFile(file, VoBytesOf(text));
}
