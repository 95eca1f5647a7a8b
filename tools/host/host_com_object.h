// Reference counting and QueryInterface for the objects the host hands to the
// provider. The count is atomic: the provider may add and release references
// from the event log's delivery threads. The creator owns the first reference.
#pragma once

#include <windows.h>
#include <unknwn.h>
#include <oaidl.h>

#include <wrl/client.h>

#include <atomic>

namespace zeph::host {

// Takes over the creator's reference of a new object. (MinGW's ComPtr::Attach
// adds a reference of its own, so it cannot be used for that.)
template <typename T>
Microsoft::WRL::ComPtr<T> Adopt(T* created)
{
    Microsoft::WRL::ComPtr<T> pointer;
    *pointer.GetAddressOf() = created;
    return pointer;
}

// How many host objects exist: the host checks that the provider gave back
// every reference once it is released.
inline std::atomic<long>& LiveHostObjects()
{
    static std::atomic<long> count{0};
    return count;
}

// Interface is the most derived interface; Bases are the interfaces it derives
// from (besides IUnknown) that QueryInterface answers with the same pointer.
template <typename Interface, typename... Bases>
class HostObject : public Interface {
public:
    HostObject() { ++LiveHostObjects(); }
    HostObject(const HostObject&) = delete;
    HostObject& operator=(const HostObject&) = delete;
    virtual ~HostObject() { --LiveHostObjects(); }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        if (riid == IID_IUnknown || riid == __uuidof(Interface) || (... || (riid == __uuidof(Bases)))) {
            *object = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
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

private:
    std::atomic<ULONG> references_{1};
};

// The host's dispatch interfaces are called through their method tables only;
// late binding on them is not offered.
template <typename Interface>
class HostDispatchObject : public HostObject<Interface, IDispatch> {
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

}  // namespace zeph::host
