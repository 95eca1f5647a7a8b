#include "handle_table.h"

#include "counters.h"

namespace evtsim {

EVT_HANDLE HandleTable::Add(EVT_SIM_HANDLE_KIND kind, std::shared_ptr<void> object)
{
    std::uintptr_t id;
    {
        std::lock_guard lock(mutex_);
        id = nextId_;
        open_.emplace(id, Entry{kind, std::move(object)});
        nextId_ += kIdStep;
        ++openCount_[kind];
    }
    ++GlobalCounters().opened[kind];
    return reinterpret_cast<EVT_HANDLE>(id);
}

std::shared_ptr<void> HandleTable::FindObject(EVT_HANDLE handle, EVT_SIM_HANDLE_KIND kind) const
{
    std::lock_guard lock(mutex_);
    auto it = open_.find(reinterpret_cast<std::uintptr_t>(handle));
    if (it == open_.end() || it->second.kind != kind) {
        return nullptr;
    }
    return it->second.object;
}

HandleTable::CloseResult HandleTable::Close(EVT_HANDLE handle, EVT_SIM_HANDLE_KIND* kind, std::shared_ptr<void>* object)
{
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    CloseResult result;
    {
        std::lock_guard lock(mutex_);
        auto it = open_.find(value);
        if (it == open_.end()) {
            result = WasIssued(value) ? CloseResult::AlreadyClosed : CloseResult::NeverIssued;
        } else if (it->second.kind == EVT_SIM_KIND_EVENT) {
            result = CloseResult::OwnedBySimulator;
        } else {
            *kind = it->second.kind;
            *object = std::move(it->second.object);
            open_.erase(it);
            --openCount_[*kind];
            result = CloseResult::Closed;
        }
    }
    Counters& counters = GlobalCounters();
    switch (result) {
    case CloseResult::Closed:
        ++counters.closed[*kind];
        break;
    case CloseResult::NeverIssued:
        ++counters.unknownCloses;
        break;
    // Closing a callback's event handle is the caller's mistake just as a second close is.
    case CloseResult::AlreadyClosed:
    case CloseResult::OwnedBySimulator:
        ++counters.doubleCloses;
        break;
    }
    return result;
}

void HandleTable::Release(EVT_HANDLE handle)
{
    std::shared_ptr<void> object;  // freed after the lock is dropped
    EVT_SIM_HANDLE_KIND kind;
    {
        std::lock_guard lock(mutex_);
        auto it = open_.find(reinterpret_cast<std::uintptr_t>(handle));
        if (it == open_.end()) {
            return;
        }
        kind = it->second.kind;
        object = std::move(it->second.object);
        open_.erase(it);
        --openCount_[kind];
    }
    ++GlobalCounters().closed[kind];
}

LONG64 HandleTable::OpenCount(EVT_SIM_HANDLE_KIND kind) const
{
    std::lock_guard lock(mutex_);
    return openCount_[kind];
}

bool HandleTable::WasIssued(std::uintptr_t value) const
{
    return value >= kFirstId && value < nextId_ && (value - kFirstId) % kIdStep == 0;
}

HandleTable& Handles()
{
    static HandleTable* table = new HandleTable;  // outlives delivery threads
    return *table;
}

}  // namespace evtsim
