// The base of the objects a host hands to the provider (the logger in
// host_logger.h, the value sink in host_value_sink.h, the context below):
// reference counted without a module lock (ref_counted_object.h) and counted
// while alive, so a host can tell whether a released provider gave every
// reference back. A call that breaks the host interfaces' contract is reported
// to one handler: zeph-host and the benchmarks set none, the tests fail the test.
// Threads: any; the provider calls host objects from event delivery threads.
#pragma once

#include "support/ref_counted_object.h"

#include <agent.h>

#include <atomic>
#include <string>

namespace zeph {

// How many host objects exist.
inline std::atomic<long>& LiveHostObjects()
{
    static std::atomic<long> count{0};
    return count;
}

template <typename Interface, typename... Bases>
class HostObject : public RefCountedObject<Interface, Bases...> {
public:
    HostObject() { ++LiveHostObjects(); }
    ~HostObject() override { --LiveHostObjects(); }
};

// The host's dispatch interfaces are called through their method tables only.
template <typename Interface>
using HostDispatchObject = NoLateBinding<HostObject<Interface, IDispatch>>;

// The host context: no methods, only its references matter.
class HostContext : public HostObject<IProviderHostContext> {};

// Hears of a call that breaks the contract (a category other than the provider's,
// a line at a level that is off, an out parameter not cleared, a null argument).
// Set it before the provider is handed any host object; it may be called on any thread.
using ContractBreachHandler = void (*)(const std::wstring& what);
inline std::atomic<ContractBreachHandler>& ContractBreachHandlerSlot()
{
    static std::atomic<ContractBreachHandler> handler{nullptr};
    return handler;
}
inline void ReportContractBreach(const std::wstring& what)
{
    if (const ContractBreachHandler handler = ContractBreachHandlerSlot().load()) {
        handler(what);
    }
}

// Nonzero while a host object does its own bookkeeping on this thread: the
// allocation-failure test leaves those allocations alone, as they are not the provider's.
inline thread_local int t_inHostObject = 0;
struct HostBookkeeping {
    HostBookkeeping() { ++t_inHostObject; }
    ~HostBookkeeping() { --t_inHostObject; }
    HostBookkeeping(const HostBookkeeping&) = delete;
    HostBookkeeping& operator=(const HostBookkeeping&) = delete;
};

}  // namespace zeph
