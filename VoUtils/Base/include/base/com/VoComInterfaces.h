// The base class of COM objects with several interfaces.
#pragma once

#include <base/com/VoIUnknown.h>

// CVoIUnknownImpl for an object with several interfaces. The first one's IUnknown is the object's identity. Each interface, the
// first included, needs its VoInterfaceId; interfaces that these derive from are answered by overriding QueryOther. Derive:
// class CSite : public CVoIUnknownImplOfSeveral<IOleClientSite, IOleInPlaceSite>.
template <class First, class... Others>
class CVoIUnknownImplOfSeveral : public CVoIUnknownImpl<First>, public Others...
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) noexcept override
    {
        return CVoIUnknownImpl<First>::QueryInterface(iid, object);
    }
    STDMETHODIMP_(ULONG) AddRef() noexcept override { return CVoIUnknownImpl<First>::AddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override { return CVoIUnknownImpl<First>::Release(); }

protected:
    HRESULT QueryOther(REFIID iid, void** object) noexcept override
    {
        return (Answer<Others>(iid, object) || ...) ? S_OK : E_NOINTERFACE;
    }

private:
    template <class Interface>
    bool Answer(REFIID iid, void** object) noexcept
    {
        if (!IsEqualIID(iid, kVoInterfaceId<Interface>))
            return false;
        *object = static_cast<Interface*>(this);
        AddRef();
        return true;
    }
};
