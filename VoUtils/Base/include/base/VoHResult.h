// Result codes: how errors of the platform and exceptions become an HRESULT. Every other header may use it.
#pragma once

#include <base/VoPlatform.h>

#include <exception>

// Codes of the library that have no name of their own in the platform's headers.
inline constexpr HRESULT kResultCancelled = static_cast<HRESULT>(0x800704C7);         // the user declined a credentials prompt
inline constexpr HRESULT kResultTimeout = static_cast<HRESULT>(0x800705B4);           // a transfer ran out of time
inline constexpr HRESULT kResultCallbackException = static_cast<HRESULT>(0x80070428); // an exception was caught in a callback
inline constexpr HRESULT kResultNotEnoughMemory = static_cast<HRESULT>(0x80070008);   // a growable array could not grow
inline constexpr HRESULT kResultUnexpectedStatus =
    static_cast<HRESULT>(0x80072F78); // an HTTP status other than 200 (Windows transports)

// Failures of an application built on the library that have no code of the platform with a text fit for a user: facility 259,
// from 0x81030001 upward. VoGetErrorText knows their texts. A number is never used for another failure.
inline constexpr HRESULT kErrorServerNotReached = static_cast<HRESULT>(0x81030001);
inline constexpr HRESULT kErrorServerAnswer = static_cast<HRESULT>(0x81030002);
inline constexpr HRESULT kErrorServerRefused = static_cast<HRESULT>(0x81030003);
inline constexpr HRESULT kErrorServerCertificate = static_cast<HRESULT>(0x81030004);
inline constexpr HRESULT kErrorServerCredentials = static_cast<HRESULT>(0x81030005);
inline constexpr HRESULT kErrorResponseLimit = static_cast<HRESULT>(0x81030006); // see CVoResponseLimits
inline constexpr HRESULT kErrorProxyNotReached = static_cast<HRESULT>(0x81030010);
inline constexpr HRESULT kErrorProxyCredentials = static_cast<HRESULT>(0x81030011);
inline constexpr HRESULT kErrorSignature = static_cast<HRESULT>(0x81030020);
inline constexpr HRESULT kErrorSettings = static_cast<HRESULT>(0x81030030);
inline constexpr HRESULT kErrorSystemTooOld = static_cast<HRESULT>(0x81030031);

// The HRESULT of an error number for which a failure was detected. A positive number e becomes 0x80070000 | (e & 0xFFFF), a
// value that is an HRESULT already is kept, and 0 (the callee failed without saying why) becomes E_FAIL.
[[nodiscard]] constexpr HRESULT HResultFromWin32(DWORD error) noexcept
{
    const auto value = static_cast<HRESULT>(error);
    if (value == 0)
        return E_FAIL;
    return value < 0 ? value : static_cast<HRESULT>(0x80070000U | (error & 0xFFFFU));
}

// HResultFromWin32 of the calling thread's last error.
[[nodiscard]] inline HRESULT HResultFromLastError() noexcept
{
    return HResultFromWin32(::GetLastError());
}

// The exception that carries an HRESULT through the inside of the library. It never crosses a public edge.
class CVoHResultException : public std::exception
{
public:
    explicit CVoHResultException(HRESULT result) noexcept : m_result(result) {}

    [[nodiscard]] HRESULT Result() const noexcept { return m_result; }
    [[nodiscard]] const char* what() const noexcept override { return "HRESULT failure"; }

private:
    HRESULT m_result;
};

// The HRESULT of the exception being handled; call it only inside a catch block. CVoHResultException gives its own code,
// memory exhaustion E_OUTOFMEMORY, a length or an argument out of bounds E_INVALIDARG, anything else E_FAIL.
[[nodiscard]] HRESULT HResultFromCurrentException() noexcept;

// Saves the calling thread's last error, and restores it at the end of the scope. For clean-up code that must not change it.
class CVoLastErrorKeeper
{
public:
    CVoLastErrorKeeper() noexcept : m_error(::GetLastError()) {}
    ~CVoLastErrorKeeper() { ::SetLastError(m_error); }
    CVoLastErrorKeeper(const CVoLastErrorKeeper&) = delete;
    CVoLastErrorKeeper& operator=(const CVoLastErrorKeeper&) = delete;

private:
    DWORD m_error;
};
