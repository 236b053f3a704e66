// Where the body of a response goes while it arrives, for bodies that are too large for memory:
//
//     CVoFileSink file;
//     if (hr = file.Open(L"C:\\downloads\\map.bin"); SUCCEEDED(hr))
//     {
//         request->SetResponseSink(&file);
//         hr = message->SendGetRequest(request, L"/map.bin", true, nullptr);
//     }
//     CVoBinaryDataParser response; // stays empty
//     if (SUCCEEDED(hr))
//         hr = message->ReadResponse(request, response, CVoHTTPMessage::EResponseKind::Binary, nullptr, nullptr);
//     if (SUCCEEDED(hr))
//         hr = file.Commit();
//
// CVoHTTPClient does it in one call: Get with a sink, GetToFile.
#pragma once

#include <base/VoPlatform.h>
#include <win/VoFile.h>

#include <span>

// Receives the body of the response with status 200. The body of a redirect, of a challenge and of any other status never gets
// here. Its functions are called one at a time, by the thread that runs the operation on the request and while the message is
// locked: they must not call the message. Over libcurl that is the send, over the Windows transports the reading. Afterwards
// nothing is called any more. Write may wait as long as it likes; the transfer waits with it. Over libcurl the request time-out
// goes on meanwhile. A cancel ends the transfer when Write has returned.
class IVoResponseSink
{
public:
    // Takes the next bytes of the body, in order; there is at least one. They are valid during the call. They are what
    // ReadResponse would hand out: decoded over libcurl, as they came over the Windows transports. A failure ends the transfer
    // with that code, without another attempt.
    [[nodiscard]] virtual HRESULT Write(std::span<const BYTE> bytes) noexcept = 0;
    // Drops everything that was written: an attempt has failed in the middle of the body, and another one is allowed, whose
    // body begins again. After a failure there is no other attempt, and the send returns the failure of the attempt. Without
    // bytes written it is not called.
    [[nodiscard]] virtual HRESULT Restart() noexcept { return E_NOTIMPL; }

    IVoResponseSink(const IVoResponseSink&) = delete;
    IVoResponseSink& operator=(const IVoResponseSink&) = delete;

protected:
    IVoResponseSink() = default;
    ~IVoResponseSink() = default;
};

// Writes a body to a file, which stands under its name only after Commit; see CVoFileReplacement for the codes. Without Commit
// nothing is left, and a file that was there is unchanged.
class CVoFileSink final : public IVoResponseSink
{
public:
    CVoFileSink() = default;

    // Once, before the sink is used.
    [[nodiscard]] HRESULT Open(CVoTextView path) noexcept { return m_file.Open(path); }
    [[nodiscard]] HRESULT Commit() noexcept { return m_file.Commit(); }

    [[nodiscard]] HRESULT Write(std::span<const BYTE> bytes) noexcept override
    {
        return m_file.Append({ reinterpret_cast<const char*>(bytes.data()), bytes.size() });
    }
    [[nodiscard]] HRESULT Restart() noexcept override { return m_file.Restart(); }

private:
    CVoFileReplacement m_file;
};
