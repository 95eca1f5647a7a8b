// The DLL's COM classes on the IUnknown core (unknown_core.h), with a module
// lock held for every object's whole lifetime: taken before T is built and given
// back only after T and its members are gone (ModuleLockScope is the first base).
//
// An implementation class T derives from its interfaces, leaves IUnknown's
// methods abstract, and names the interfaces it answers for:
//     using Interfaces = InterfaceList<IMostDerived, IBase, ...>;
// ComObject<T> is the plain object; ComAggObject<T> is the aggregated one,
// whose inner unknown this is and whose T forwards IUnknown to the outer
// object. Reference counts are atomic: the objects may be used from any thread.
#pragma once

#include "com/module_lock.h"
#include "com/unknown_core.h"

#include <windows.h>
#include <unknwn.h>

#include <new>
#include <utility>

namespace zeph {

template <typename T>
class ComObject final : private ModuleLockScope, public T {
public:
    template <typename... Args>
    explicit ComObject(Args&&... args) : T(std::forward<Args>(args)...)
    {
    }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        return QueryInterfaceOf<typename T::Interfaces>(static_cast<T*>(this), riid, object);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return references_.AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return references_.ReleaseOwner(this); }

    // Creates an object and returns riid on it; the object goes again if that fails.
    [[nodiscard]] static HRESULT Create(REFIID riid, void** object)
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        *object = nullptr;
        auto* created = new (std::nothrow) ComObject<T>();
        if (created == nullptr) {
            return E_OUTOFMEMORY;
        }
        created->AddRef();
        const HRESULT result = created->QueryInterface(riid, object);
        created->Release();
        return result;
    }

private:
    ReferenceCount references_{0};
};

template <typename T>
class ComAggObject final : private ModuleLockScope, public IUnknown {
public:
    explicit ComAggObject(IUnknown* outer) : contained_(outer) {}
    virtual ~ComAggObject() = default;

    // IUnknown is the inner unknown itself; every other interface is T's,
    // counted on the outer object.
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (riid == __uuidof(IUnknown)) {
            return QueryInterfaceOf<InterfaceList<IUnknown>>(static_cast<IUnknown*>(this), riid, object);
        }
        return QueryInterfaceOf<typename T::Interfaces>(static_cast<T*>(&contained_), riid, object);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return references_.AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return references_.ReleaseOwner(this); }

    // With an outer object only IUnknown may be asked for: the inner unknown.
    [[nodiscard]] static HRESULT Create(IUnknown* outer, REFIID riid, void** object)
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        *object = nullptr;
        if (outer == nullptr || riid != __uuidof(IUnknown)) {
            return CLASS_E_NOAGGREGATION;
        }
        auto* created = new (std::nothrow) ComAggObject<T>(outer);
        if (created == nullptr) {
            return E_OUTOFMEMORY;
        }
        created->AddRef();
        *object = static_cast<IUnknown*>(created);
        return S_OK;
    }

private:
    // The aggregated T: its IUnknown belongs to the outer object.
    class Contained final : public T {
    public:
        explicit Contained(IUnknown* outer) : outer_(outer) {}
        STDMETHODIMP QueryInterface(REFIID riid, void** object) override
        {
            return outer_->QueryInterface(riid, object);
        }
        STDMETHODIMP_(ULONG) AddRef() override { return outer_->AddRef(); }
        STDMETHODIMP_(ULONG) Release() override { return outer_->Release(); }

    private:
        IUnknown* outer_;  // not counted: the outer object owns us
    };

    ReferenceCount references_{0};
    Contained contained_;
};

}  // namespace zeph
