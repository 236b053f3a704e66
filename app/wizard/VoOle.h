// OLE on one thread.
#pragma once

#include <base/VoPlatform.h>

#include <ole2.h>

// Initialises OLE for the thread that makes it, as a single-threaded apartment, and ends it on the same thread.
class CVoOle
{
public:
    CVoOle() noexcept : m_result(::OleInitialize(nullptr)) {}
    ~CVoOle()
    {
        if (SUCCEEDED(m_result))
            ::OleUninitialize();
    }
    CVoOle(const CVoOle&) = delete;
    CVoOle& operator=(const CVoOle&) = delete;

    [[nodiscard]] HRESULT Result() const noexcept { return m_result; }

private:
    HRESULT m_result;
};
