// The IUnknown core (com/unknown_core.h) for the host side's COM objects, which
// are not the DLL's own classes: the host objects (host_object.h), the SAX
// handlers, the tests' aggregating outer object. Unlike ComObject they hold no
// module lock, so they never keep the provider's DLL loaded. The count is atomic
// (the provider calls the host objects from event delivery threads); the creator
// owns the first reference, which Adopt() takes over.
#pragma once

#include "com/unknown_core.h"

#include <windows.h>
#include <unknwn.h>
#include <oaidl.h>

#include <wrl/client.h>

namespace zeph {

// Takes over the creator's reference of a new object. (MinGW's ComPtr::Attach
// adds a reference of its own, so it cannot be used for that.)
template <typename T>
Microsoft::WRL::ComPtr<T> Adopt(T* created)
{
    Microsoft::WRL::ComPtr<T> pointer;
    *pointer.GetAddressOf() = created;
    return pointer;
}

// Interface is the most derived interface; Bases are the interfaces it derives
// from (besides IUnknown) that QueryInterface answers with the same pointer.
template <typename Interface, typename... Bases>
class RefCountedObject : public Interface {
public:
    RefCountedObject() = default;
    RefCountedObject(const RefCountedObject&) = delete;
    RefCountedObject& operator=(const RefCountedObject&) = delete;
    virtual ~RefCountedObject() = default;

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        return QueryInterfaceOf<InterfaceList<Interface, Bases...>>(static_cast<Interface*>(this), riid, object);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return references_.AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return references_.ReleaseOwner(this); }

    ULONG References() const { return references_.Get(); }

private:
    ReferenceCount references_{1};
};

// IDispatch for objects called through their method tables only: late binding
// on them is not offered. Base is a RefCountedObject (or a class derived from
// one) of a dispatch interface.
template <typename Base>
class NoLateBinding : public Base {
public:
    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        if (count == nullptr) {
            return E_POINTER;
        }
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo** info) override
    {
        if (info != nullptr) {
            *info = nullptr;
        }
        return E_NOTIMPL;
    }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
};

}  // namespace zeph
