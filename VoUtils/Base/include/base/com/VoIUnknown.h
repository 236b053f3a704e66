// The base class of the library's COM objects, and an owning interface pointer.
#pragma once

#include <base/VoErrorHandler.h>
#include <base/VoPlatform.h>

#include <atomic>
#include <new>
#include <utility>

// The IID of an interface. Specialise it beside the interface's declaration; it stands in for the compilers' own ways of tying
// a GUID to a type.
template <class Interface>
struct VoInterfaceId;

template <>
struct VoInterfaceId<IUnknown>
{
    static constexpr IID value{ 0x00000000, 0x0000, 0x0000, { 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46 } };
};

template <class Interface>
inline constexpr IID kVoInterfaceId = VoInterfaceId<Interface>::value;

// Owns one reference to a COM object. Copying adds a reference, destruction releases it.
template <class Interface>
class CVoComPtr
{
public:
    CVoComPtr() noexcept = default;
    // Adds a reference of its own; the caller keeps the one it has. Null is allowed.
    CVoComPtr(Interface* object) noexcept : m_object(object)
    {
        if (m_object)
            m_object->AddRef();
    }
    CVoComPtr(const CVoComPtr& other) noexcept : CVoComPtr(other.m_object) {}
    CVoComPtr(CVoComPtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    ~CVoComPtr() { Reset(); }

    // Adds the new reference before it releases the old one.
    CVoComPtr& operator=(const CVoComPtr& other) noexcept
    {
        if (this != &other)
            CVoComPtr(other).Swap(*this);
        return *this;
    }
    CVoComPtr& operator=(CVoComPtr&& other) noexcept
    {
        CVoComPtr(std::move(other)).Swap(*this);
        return *this;
    }

    // Takes over a reference that the caller owns.
    [[nodiscard]] static CVoComPtr Attach(Interface* object) noexcept
    {
        CVoComPtr result;
        result.m_object = object;
        return result;
    }
    // Returns the reference and no longer owns it.
    [[nodiscard]] Interface* Detach() noexcept { return std::exchange(m_object, nullptr); }
    void Reset() noexcept
    {
        if (Interface* const object = std::exchange(m_object, nullptr))
            object->Release();
    }
    void Swap(CVoComPtr& other) noexcept { std::swap(m_object, other.m_object); }

    // For out arguments. The reference that it owns is released first.
    [[nodiscard]] Interface** Put() noexcept
    {
        Reset();
        return &m_object;
    }
    [[nodiscard]] void** PutVoid() noexcept { return reinterpret_cast<void**>(Put()); }

    [[nodiscard]] Interface* Get() const noexcept { return m_object; }
    Interface* operator->() const noexcept { return m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

    // QueryInterface for another interface of the same object. E_POINTER when this pointer is null; `other` changes on success
    // only.
    template <class Other>
    [[nodiscard]] HRESULT As(CVoComPtr<Other>& other) const noexcept
    {
        if (!m_object)
            return E_POINTER;
        CVoComPtr<Other> found;
        const HRESULT hr = m_object->QueryInterface(kVoInterfaceId<Other>, found.PutVoid());
        if (SUCCEEDED(hr))
            other.Swap(found);
        return hr;
    }

private:
    Interface* m_object = nullptr;
};

// Observes an object without owning it (CVoSharedObject).
class IVoReleaseObserver
{
public:
    // The last reference was released. The object is deleted when this returns. Called on the releasing thread.
    virtual void OnLastRelease(IUnknown* object) noexcept = 0;

protected:
    ~IVoReleaseObserver() = default;
};

// Reference counting and the interface query for one interface. A new object has one reference, which its maker owns; the last
// Release deletes it, so objects are made with `new` only (VoMakeComObject). Derive: class CThing : public
// CVoIUnknownImpl<IThing>.
template <class Interface>
class CVoIUnknownImpl : public Interface
{
public:
    CVoIUnknownImpl(const CVoIUnknownImpl&) = delete;
    CVoIUnknownImpl& operator=(const CVoIUnknownImpl&) = delete;

    // E_POINTER for a null out pointer, E_NOINTERFACE (with the out pointer set to null, as COM demands) for other interfaces.
    STDMETHODIMP QueryInterface(REFIID iid, void** object) noexcept override
    {
        if (!object)
            return E_POINTER;
        if (IsEqualIID(iid, kVoInterfaceId<Interface>) || IsEqualIID(iid, kVoInterfaceId<IUnknown>))
        {
            *object = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return QueryOther(iid, object);
    }
    STDMETHODIMP_(ULONG) AddRef() noexcept override { return m_references.fetch_add(1, std::memory_order_relaxed) + 1; }
    STDMETHODIMP_(ULONG) Release() noexcept override
    {
        const ULONG left = m_references.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0)
        {
            if (m_observer)
                m_observer->OnLastRelease(this);
            delete this;
        }
        return left;
    }

    // Adds a reference unless the last one was released; returns whether it did. For an observer, which keeps OnLastRelease
    // from returning meanwhile.
    [[nodiscard]] bool AddRefIfAlive() noexcept
    {
        ULONG count = m_references.load(std::memory_order_relaxed);
        while (count != 0)
            if (m_references.compare_exchange_weak(count, count + 1, std::memory_order_relaxed))
                return true;
        return false;
    }
    // Set it before other threads know the object. The observer is not owned and must outlive the object.
    void SetReleaseObserver(IVoReleaseObserver* observer) noexcept { m_observer = observer; }

protected:
    CVoIUnknownImpl() = default;
    virtual ~CVoIUnknownImpl() = default;

    // Interfaces beyond the object's own; `*object` is null on entry.
    virtual HRESULT QueryOther(REFIID /*iid*/, void** /*object*/) noexcept { return E_NOINTERFACE; }

private:
    std::atomic<ULONG> m_references{ 1 };
    IVoReleaseObserver* m_observer = nullptr;
};

// The same with the system's free-threaded marshaller aggregated, so that the object may be called from any thread or
// apartment directly. The object must guard itself. The marshaller is made when the first caller asks for IMarshal.
template <class Interface>
class CVoIUnknownImplWithFreeThreadedMarshaller : public CVoIUnknownImpl<Interface>
{
protected:
    ~CVoIUnknownImplWithFreeThreadedMarshaller() override
    {
        // The marshaller has a reference count of its own; its interfaces share the object's.
        if (IUnknown* const marshaller = m_marshaller.load(std::memory_order_acquire))
            marshaller->Release();
    }

    HRESULT QueryOther(REFIID iid, void** object) noexcept override
    {
        if (!IsEqualIID(iid, kMarshalId))
            return E_NOINTERFACE;
        if (const HRESULT hr = MakeMarshaller(); FAILED(hr))
            return hr;
        return m_marshaller.load(std::memory_order_acquire)->QueryInterface(iid, object);
    }

    // Makes the marshaller now instead of on the first request, for objects that must fail early. Any thread.
    HRESULT MakeMarshaller() noexcept
    {
        constexpr CVoReporter report{ L"VoIUnknown.h", L"CVoIUnknownImplWithFreeThreadedMarshaller::MakeMarshaller" };
        if (m_marshaller.load(std::memory_order_acquire))
            return S_OK;
        IUnknown* made = nullptr;
        if (const HRESULT hr = ::CoCreateFreeThreadedMarshaler(this, &made); FAILED(hr))
            return report(128, hr);
        // Of two threads that get here together, one keeps its marshaller and the other drops it.
        IUnknown* expected = nullptr;
        if (!m_marshaller.compare_exchange_strong(expected, made, std::memory_order_acq_rel))
            made->Release();
        return S_OK;
    }

private:
    static constexpr IID kMarshalId{ 0x00000003, 0x0000, 0x0000, { 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46 } };

    std::atomic<IUnknown*> m_marshaller{ nullptr };
};

// A new COM object, or null when memory is exhausted. The pointer owns the object's first reference. Throws what the object's
// constructor throws.
template <class Object, class... Args>
[[nodiscard]] CVoComPtr<Object> VoMakeComObject(Args&&... args)
{
    return CVoComPtr<Object>::Attach(new (std::nothrow) Object(std::forward<Args>(args)...));
}
