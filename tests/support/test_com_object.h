// Reference counting for test doubles of host objects. Unlike the DLL's own
// objects they hold no module lock, so they never disturb DllCanUnloadNow, and
// they expose their count so tests can check the provider's reference balance.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <agent.h>

#include <wrl/client.h>

#include <atomic>

namespace zeph::test {

template <typename Interface, typename... MoreIids>
class TestComObject : public Interface {
public:
    virtual ~TestComObject() = default;

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        if (riid == IID_IUnknown || riid == __uuidof(Interface) || (... || (riid == __uuidof(MoreIids)))) {
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

    ULONG References() const { return references_; }

private:
    std::atomic<ULONG> references_{1};  // the creator's reference
};

// IDispatch for doubles whose late binding no test uses.
template <typename Interface, typename... MoreIids>
class TestDispatchObject : public TestComObject<Interface, MoreIids...> {
public:
    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
};

// Takes over the reference a new test double is born with. (The toolchain's
// ComPtr::Attach adds a reference of its own, which would leave every double
// one reference short of being freed.)
template <typename T>
Microsoft::WRL::ComPtr<T> Adopt(T* created)
{
    Microsoft::WRL::ComPtr<T> pointer;
    *pointer.GetAddressOf() = created;
    return pointer;
}

// A host context: no methods, only its reference count matters.
class CountingHostContext final : public TestComObject<IProviderHostContext> {};

}  // namespace zeph::test
