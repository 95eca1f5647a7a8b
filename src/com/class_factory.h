// The class factory of a COM class T (see com_object.h for what T provides).
//
// One factory per class and process: Instance() hands out the same object to
// every caller, and it lives as long as the module. While anybody holds a
// reference to it, and for every LockServer(TRUE) not yet undone, the module
// stays locked, so the DLL cannot be unloaded under a caller's feet.
// Creation: without an outer object a ComObject<T>; with one, only IUnknown
// may be asked for (CLASS_E_NOAGGREGATION otherwise) and the caller gets the
// inner unknown of a ComAggObject<T>.
// Threads: any; the reference count is atomic and the factory has no other state.
#pragma once

#include "com/com_object.h"
#include "com/module_lock.h"
#include "com/unknown_core.h"
#include "win/hresult.h"

#include <windows.h>
#include <unknwn.h>

namespace zeph {

template <typename T>
class ClassFactory final : public IClassFactory {
public:
    static ClassFactory& Instance() noexcept
    {
        static ClassFactory factory;
        return factory;
    }

    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        return QueryInterfaceOf<InterfaceList<IClassFactory>>(this, riid, object);
    }

    // The first outside reference locks the module, the last one unlocks it;
    // the object itself is never deleted.
    STDMETHODIMP_(ULONG) AddRef() override
    {
        const ULONG count = references_.AddRef();
        if (count == 1) {
            LockModule();
        }
        return count;
    }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG count = references_.Release();
        if (count == 0) {
            UnlockModule();
        }
        return count;
    }

    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** object) override
    {
        if (object == nullptr) {
            return E_POINTER;
        }
        *object = nullptr;
        return ComBarrier([&]() -> HRESULT {
            return outer != nullptr ? ComAggObject<T>::Create(outer, riid, object) : ComObject<T>::Create(riid, object);
        });
    }

    STDMETHODIMP LockServer(BOOL lock) override
    {
        if (lock) {
            LockModule();
        } else {
            UnlockModule();
        }
        return S_OK;
    }

private:
    ClassFactory() = default;

    ReferenceCount references_{0};
};

}  // namespace zeph
