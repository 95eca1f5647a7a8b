// Minimal stand-ins for the host's objects: a logger that discards what it is
// given, a sink that accepts every value, and an empty host context. They do
// as little as an interface call allows, so what is measured is the caller.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <agent.h>

#include <atomic>
#include <cstdint>

namespace zeph::bench {

// Reference counting and QueryInterface for one interface; IDispatch stubs.
template <typename Interface>
class HostObject : public Interface {
public:
    virtual ~HostObject() = default;

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        if (riid == IID_IUnknown || riid == __uuidof(Interface)) {
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

template <typename Interface>
class HostDispatchObject : public HostObject<Interface> {
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

// Answers GetCategoryLevels with fixed levels and drops every line (but counts it).
class DiscardingLogger final : public HostDispatchObject<IProviderLogger> {
public:
    explicit DiscardingLogger(ULONG levels) : levels_(levels) {}

    LONG64 Lines() const { return lines_; }

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP GetCategoryLevels(LPCWSTR, ULONG* levels) override
    {
        *levels = levels_;
        return S_OK;
    }
    STDMETHODIMP LogError(BSTR, BSTR) override { return Count(); }
    STDMETHODIMP LogWarning(BSTR, BSTR) override { return Count(); }
    STDMETHODIMP LogInfo(BSTR, BSTR) override { return Count(); }

private:
    HRESULT Count()
    {
        ++lines_;
        return S_OK;
    }

    const ULONG levels_;
    std::atomic<LONG64> lines_{0};
};

// Accepts every value. It reads each value's length, as a host that stores the
// value must at least do, and keeps counts to check that the work was done.
class AcceptingSink final : public HostDispatchObject<IMetricValueSink> {
public:
    LONG64 Writes() const { return writes_; }
    LONG64 Characters() const { return characters_; }
    void Reset()
    {
        writes_ = 0;
        characters_ = 0;
    }

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved2() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved3() override { return E_NOTIMPL; }
    STDMETHODIMP WriteMetricValue(BSTR, BSTR name, VARIANT* value) override
    {
        ++writes_;
        characters_ += ::SysStringLen(name);
        if (value != nullptr && V_VT(value) == VT_BSTR) {
            characters_ += ::SysStringLen(V_BSTR(value));
        }
        return S_OK;
    }

private:
    // Only the host's thread writes; plain counters suffice.
    LONG64 writes_ = 0;
    LONG64 characters_ = 0;
};

class EmptyHostContext final : public HostObject<IProviderHostContext> {};

}  // namespace zeph::bench
