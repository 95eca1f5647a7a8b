// Test doubles of host objects: reference counted without a module lock, so
// they never disturb DllCanUnloadNow, and with their count exposed so tests can
// check the provider's reference balance.
#pragma once

#include "com/ref_counted_object.h"

#include <agent.h>

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
class CountingHostContext final : public TestComObject<IProviderHostContext> {};

}  // namespace zeph::test
