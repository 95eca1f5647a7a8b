// The one IUnknown core under every COM object of ours: an atomic reference
// count, and QueryInterface over a list of interfaces. The DLL's classes get it
// through ComObject and ComAggObject (com_object.h, with the module lock and
// aggregation), the host side's objects through RefCountedObject
// (tools/support/ref_counted_object.h, without).
// Threads: any; the count is atomic, the list is a type.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>

namespace zeph {

// The interfaces an object answers QueryInterface for, by the pointer of the
// object cast to each; IUnknown is answered with the first one's.
template <typename First, typename... More>
struct InterfaceList {
    // riid on object, not added to, or null.
    template <typename T>
    static void* Find(T* object, REFIID riid) noexcept
    {
        if (riid == __uuidof(IUnknown)) {
            return static_cast<IUnknown*>(static_cast<First*>(object));
        }
        void* found = nullptr;
        (void)((Matches<First>(object, riid, found) || ... || Matches<More>(object, riid, found)));
        return found;
    }

private:
    template <typename Interface, typename T>
    static bool Matches(T* object, REFIID riid, void*& found) noexcept
    {
        if (riid != __uuidof(Interface)) {
            return false;
        }
        found = static_cast<Interface*>(object);
        return true;
    }
};

// IUnknown::QueryInterface for an object with the interfaces of List: the
// interface with a reference added, or E_NOINTERFACE (and null).
template <typename List, typename T>
[[nodiscard]] HRESULT QueryInterfaceOf(T* object, REFIID riid, void** result) noexcept
{
    if (result == nullptr) {
        return E_POINTER;
    }
    *result = List::Find(object, riid);
    if (*result == nullptr) {
        return E_NOINTERFACE;
    }
    static_cast<IUnknown*>(*result)->AddRef();
    return S_OK;
}

// An atomic reference count; the owner deletes itself when Release reaches zero.
class ReferenceCount {
public:
    explicit ReferenceCount(ULONG initial) noexcept : count_(initial) {}
    ReferenceCount(const ReferenceCount&) = delete;
    ReferenceCount& operator=(const ReferenceCount&) = delete;

    ULONG AddRef() noexcept { return ++count_; }
    [[nodiscard]] ULONG Release() noexcept { return --count_; }
    // Release for the object that owns this count: deletes it with the last reference.
    template <typename Owner>
    ULONG ReleaseOwner(Owner* owner) noexcept
    {
        const ULONG remaining = Release();
        if (remaining == 0) {
            delete owner;
        }
        return remaining;
    }
    ULONG Get() const noexcept { return count_.load(); }

private:
    std::atomic<ULONG> count_;
};

}  // namespace zeph
