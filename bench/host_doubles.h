// Minimal stand-ins for the host's objects: a logger that discards what it is
// given, a sink that accepts every value, and an empty host context. They do
// as little as an interface call allows, so what is measured is the caller.
#pragma once

#include "com/ref_counted_object.h"

#include <agent.h>

#include <atomic>
#include <cstdint>

namespace zeph::bench {

template <typename Interface>
using HostObject = RefCountedObject<Interface>;

template <typename Interface>
using HostDispatchObject = NoLateBinding<RefCountedObject<Interface, IDispatch>>;

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
