// Type information for dual interfaces, and an IDispatch that forwards to it.
#pragma once

#include "win/hresult.h"

#include <windows.h>
#include <oaidl.h>

#include <wrl/client.h>

#include <atomic>

namespace zeph {

// The type info of iid from the type library libid (major.minor): the registered
// library first, else the type library inside the module file that holds this code.
// Allocation failures throw std::bad_alloc.
[[nodiscard]] HRESULT LoadInterfaceTypeInfo(REFGUID libid, WORD major, WORD minor, REFIID iid, ITypeInfo** typeInfo);

// Implements IDispatch for the dual interface Dual from its type info; no
// hand-made DISPID tables. TypeLib supplies kLibId, kMajor, kMinor. The type info
// is loaded on first use and kept for the life of the process; a failed load is
// retried on the next call. Every method is behind the barrier.
template <typename Dual, typename TypeLib>
class DispatchImpl : public Dual {
public:
    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        if (count == nullptr) {
            return E_POINTER;
        }
        *count = 1;
        return S_OK;
    }

    STDMETHODIMP GetTypeInfo(UINT index, LCID, ITypeInfo** typeInfo) override
    {
        if (typeInfo == nullptr) {
            return E_POINTER;
        }
        *typeInfo = nullptr;
        if (index != 0) {
            return DISP_E_BADINDEX;
        }
        return ComBarrier([&]() -> HRESULT {
            ITypeInfo* info = nullptr;
            const HRESULT result = CachedTypeInfo(&info);
            if (SUCCEEDED(result)) {
                info->AddRef();
                *typeInfo = info;
            }
            return result;
        });
    }

    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override
    {
        return ComBarrier([&]() -> HRESULT {
            ITypeInfo* info = nullptr;
            const HRESULT result = CachedTypeInfo(&info);
            return FAILED(result) ? result : ::DispGetIDsOfNames(info, names, count, ids);
        });
    }

    STDMETHODIMP Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                        UINT* argumentError) override
    {
        return ComBarrier([&]() -> HRESULT {
            ITypeInfo* info = nullptr;
            const HRESULT loaded = CachedTypeInfo(&info);
            if (FAILED(loaded)) {
                return loaded;
            }
            return ::DispInvoke(static_cast<Dual*>(this), info, id, flags, params, result, exception, argumentError);
        });
    }

private:
    // May throw std::bad_alloc while loading.
    [[nodiscard]] static HRESULT CachedTypeInfo(ITypeInfo** info)
    {
        static std::atomic<ITypeInfo*> cached{nullptr};
        ITypeInfo* current = cached.load(std::memory_order_acquire);
        if (current == nullptr) {
            Microsoft::WRL::ComPtr<ITypeInfo> loaded;
            const HRESULT result =
                LoadInterfaceTypeInfo(TypeLib::kLibId, TypeLib::kMajor, TypeLib::kMinor, __uuidof(Dual), &loaded);
            if (FAILED(result)) {
                return result;
            }
            // Kept for the life of the process; a racing loser releases its copy.
            if (cached.compare_exchange_strong(current, loaded.Get())) {
                current = loaded.Detach();
            }
        }
        *info = current;
        return S_OK;
    }
};

}  // namespace zeph
