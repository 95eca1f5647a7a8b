// Every EVT_HANDLE the simulator hands out. Values are opaque ids from a counter that
// never repeats, so a value closed twice is told apart from one never handed out.
#pragma once

#include "eventlog_sim.h"

#include <windows.h>
#include <winevt.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace evtsim {

class HandleTable {
public:
    enum class CloseResult {
        Closed,
        AlreadyClosed,  // handed out earlier and closed since
        NeverIssued,
        OwnedBySimulator,  // an EVENT handle: the simulator closes it after the callback
    };

    EVT_HANDLE Add(EVT_SIM_HANDLE_KIND kind, std::shared_ptr<void> object);

    // The object behind an open handle of this kind, else null.
    template <class T>
    std::shared_ptr<T> Find(EVT_HANDLE handle, EVT_SIM_HANDLE_KIND kind) const
    {
        return std::static_pointer_cast<T>(FindObject(handle, kind));
    }

    // EvtClose by a caller. On Closed, *kind and *object describe what was closed.
    CloseResult Close(EVT_HANDLE handle, EVT_SIM_HANDLE_KIND* kind, std::shared_ptr<void>* object);

    // Closes a handle the simulator owns (an EVENT handle once its callback returned).
    void Release(EVT_HANDLE handle);

    // Handles of a kind open now (unaffected by EvtSimResetCounters).
    LONG64 OpenCount(EVT_SIM_HANDLE_KIND kind) const;

private:
    struct Entry {
        EVT_SIM_HANDLE_KIND kind;
        std::shared_ptr<void> object;
    };

    std::shared_ptr<void> FindObject(EVT_HANDLE handle, EVT_SIM_HANDLE_KIND kind) const;
    bool WasIssued(std::uintptr_t value) const;

    // Ids start high and step by 4 like kernel handles, so small integers and NULL are never ours.
    static constexpr std::uintptr_t kFirstId = 0x5e100000;
    static constexpr std::uintptr_t kIdStep = 4;

    mutable std::mutex mutex_;
    std::unordered_map<std::uintptr_t, Entry> open_;
    std::uintptr_t nextId_ = kFirstId;
    LONG64 openCount_[EVT_SIM_KIND_COUNT] = {};
};

HandleTable& Handles();

}  // namespace evtsim
