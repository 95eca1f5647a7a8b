// The objects the host hands to the provider: reference counted as in
// ref_counted_object.h, and counted while alive so the host can tell whether
// the provider gave every reference back.
#pragma once

#include "com/ref_counted_object.h"

#include <atomic>

namespace zeph::host {

using zeph::Adopt;

// How many host objects exist: the host checks that the provider gave back
// every reference once it is released.
inline std::atomic<long>& LiveHostObjects()
{
    static std::atomic<long> count{0};
    return count;
}

// Counted while alive, on top of the shared reference counting.
template <typename Interface, typename... Bases>
class HostObject : public RefCountedObject<Interface, Bases...> {
public:
    HostObject() { ++LiveHostObjects(); }
    ~HostObject() override { --LiveHostObjects(); }
};

// The host's dispatch interfaces are called through their method tables only.
template <typename Interface>
using HostDispatchObject = NoLateBinding<HostObject<Interface, IDispatch>>;

}  // namespace zeph::host
