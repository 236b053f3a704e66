// The HRESULT of an exception (VoHResult.h).
#include <base/VoHResult.h>

#include <new>
#include <stdexcept>

HRESULT HResultFromCurrentException() noexcept
{
    try
    {
        throw;
    }
    catch (const CVoHResultException& e)
    {
        return e.Result();
    }
    catch (const std::bad_alloc&)
    {
        return E_OUTOFMEMORY;
    }
    catch (const std::length_error&)
    {
        return E_INVALIDARG;
    }
    catch (const std::out_of_range&)
    {
        return E_INVALIDARG;
    }
    catch (const std::invalid_argument&)
    {
        return E_INVALIDARG;
    }
    catch (...)
    {
        return E_FAIL;
    }
}
