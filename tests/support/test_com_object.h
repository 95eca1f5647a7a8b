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

// A host context: no methods, only its reference count matters.
class CountingHostContext final : public TestComObject<IProviderHostContext> {};

}  // namespace zeph::test
