// Test doubles of host objects: reference counted without a module lock, so
// they never disturb DllCanUnloadNow, and with their count exposed so tests can
// check the provider's reference balance.
#pragma once

#include "com/ref_counted_object.h"

#include <agent.h>

#include <functional>
#include <utility>

namespace zeph::test {

template <typename Interface, typename... MoreIids>
using TestComObject = RefCountedObject<Interface, MoreIids...>;

template <typename Interface>
using TestDispatchObject = NoLateBinding<RefCountedObject<Interface, IDispatch>>;

using zeph::Adopt;

// Nonzero while a host double does its own bookkeeping on this thread: an
// allocation-failure test leaves that out, as it is not the provider's.
inline thread_local int t_inHostDouble = 0;
struct HostDoubleScope {
    HostDoubleScope() { ++t_inHostDouble; }
    ~HostDoubleScope() { --t_inHostDouble; }
};

// A host context: no methods, only its reference count matters.
class CountingHostContext : public TestComObject<IProviderHostContext> {};

// A host double that tells the test of every AddRef and Release it gets, before
// counting it: for tests that check the order of reference changes, or what the
// DLL answers while a reference goes.
template <typename Double>
class Observed final : public Double {
public:
    using Observer = std::function<void(const wchar_t* call)>;
    explicit Observed(Observer observer) : observer_(std::move(observer)) {}

    STDMETHODIMP_(ULONG) AddRef() override
    {
        observer_(L"AddRef");
        return Double::AddRef();
    }
    STDMETHODIMP_(ULONG) Release() override
    {
        observer_(L"Release");
        return Double::Release();
    }

private:
    Observer observer_;
};

}  // namespace zeph::test
