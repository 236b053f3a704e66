// One object for the whole module, while anybody uses it. The global stores are such objects.
#pragma once

#include <base/VoLock.h>
#include <base/com/VoIUnknown.h>

// Hands out one object of a kind: the one that lives, or, when nobody holds one, a new one. It owns nothing itself, so that the
// object goes with its last user. Any thread. It is never destroyed and needs no initialisation at run time: use it as a
// constinit variable of static life.
template <class Interface>
class CVoSharedObject final : private IVoReleaseObserver
{
public:
    // Makes an object, and gives its first reference away; the object is a CVoIUnknownImpl<Interface>.
    using CCreate = HRESULT (*)(Interface** object) noexcept;

    constexpr CVoSharedObject() noexcept = default;
    CVoSharedObject(const CVoSharedObject&) = delete;
    CVoSharedObject& operator=(const CVoSharedObject&) = delete;

    // Gives `create`'s code where that fails; `object` changes on success only. Threads that ask while an object is being made
    // wait for it.
    [[nodiscard]] HRESULT Get(CCreate create, CVoComPtr<Interface>& object) noexcept
    {
        CVoComPtr<Interface> found;
        {
            const CVoLockHolder holder(m_lock);
            if (m_object && m_object->AddRefIfAlive())
                found = CVoComPtr<Interface>::Attach(m_object);
            else
            {
                if (const HRESULT hr = create(found.Put()); FAILED(hr))
                    return hr;
                m_object = static_cast<CVoIUnknownImpl<Interface>*>(found.Get());
                m_object->SetReleaseObserver(this);
            }
        }
        object.Swap(found);
        return S_OK;
    }

private:
    // A new object may already have taken the place of the released one.
    void OnLastRelease(IUnknown* object) noexcept override
    {
        const CVoLockHolder holder(m_lock);
        if (m_object == object)
            m_object = nullptr;
    }

    CVoLock m_lock;
    CVoIUnknownImpl<Interface>* m_object = nullptr;
};
