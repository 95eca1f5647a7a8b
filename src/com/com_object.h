// Reference counting and QueryInterface for the DLL's COM classes.
//
// An implementation class T derives from its interfaces, leaves IUnknown's
// methods abstract, and provides
//     void* QueryInterfaceImpl(REFIID riid) noexcept;
// returning the interface pointer for riid (without AddRef) or null.
// ComObject<T> is the plain object; ComAggObject<T> is the aggregated one,
// whose inner unknown this is and whose T forwards IUnknown to the outer
// object. Both hold a module lock for their lifetime. Reference counts are
// atomic: the objects may be used from any thread.
#pragma once

#include "module_lock.h"

#include <windows.h>
#include <unknwn.h>

#include <atomic>
#include <new>
#include <utility>

namespace zeph {

template <typename T>
class ComObject final : public T {
public:
    template <typename... Args>
    explicit ComObject(Args&&... args) : T(std::forward<Args>(args)...)
    {
        LockModule();
    }
    ~ComObject() override { UnlockModule(); }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        *object = this->QueryInterfaceImpl(riid);
        if (*object == nullptr) {
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG remaining = --references_;
        if (remaining == 0) {
            delete this;
        }
        return remaining;
    }

    // Creates an object and returns riid on it; the object goes again if that fails.
    static HRESULT Create(REFIID riid, void** object)
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
    std::atomic<ULONG> references_{0};
};

template <typename T>
class ComAggObject final : public IUnknown {
public:
    explicit ComAggObject(IUnknown* outer) : contained_(outer) { LockModule(); }
    virtual ~ComAggObject() { UnlockModule(); }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        if (riid == IID_IUnknown) {
            *object = static_cast<IUnknown*>(this);
            AddRef();
            return S_OK;
        }
        *object = contained_.QueryInterfaceImpl(riid);
        if (*object == nullptr) {
            return E_NOINTERFACE;
        }
        static_cast<IUnknown*>(*object)->AddRef();  // counted on the outer object
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG remaining = --references_;
        if (remaining == 0) {
            delete this;
        }
        return remaining;
    }

    // With an outer object only IUnknown may be asked for: the inner unknown.
    static HRESULT Create(IUnknown* outer, REFIID riid, void** object)
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        *object = nullptr;
        if (outer == nullptr || riid != IID_IUnknown) {
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

    std::atomic<ULONG> references_{0};
    Contained contained_;
};

}  // namespace zeph
