// One move-only RAII holder for handle-like resources, and one alias per kind.
// Ownership: the holder owns its value and closes it once, when reset, replaced
// or destroyed. Closing never changes the thread's last error, so a caller can
// still read the error of the call that failed.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <utility>

namespace zeph {

template <typename Traits>
class unique_resource {
public:
    using pointer = typename Traits::type;

    unique_resource() noexcept = default;
    explicit unique_resource(pointer value) noexcept : value_(value) {}
    ~unique_resource() { reset(); }

    unique_resource(unique_resource&& other) noexcept : value_(other.release()) {}
    unique_resource& operator=(unique_resource&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    unique_resource(const unique_resource&) = delete;
    unique_resource& operator=(const unique_resource&) = delete;

    pointer get() const noexcept { return value_; }

    // For out parameters: closes the current value first.
    pointer* put() noexcept
    {
        reset();
        return &value_;
    }

    [[nodiscard]] pointer release() noexcept { return std::exchange(value_, Traits::invalid()); }

    void reset(pointer value = Traits::invalid()) noexcept
    {
        const pointer old = std::exchange(value_, value);
        if (old != Traits::invalid()) {
            const DWORD lastError = ::GetLastError();
            Traits::close(old);
            ::SetLastError(lastError);
        }
    }

    explicit operator bool() const noexcept { return value_ != Traits::invalid(); }

private:
    pointer value_ = Traits::invalid();
};

struct HKeyTraits {
    using type = HKEY;
    static type invalid() noexcept { return nullptr; }
    static void close(type key) noexcept { ::RegCloseKey(key); }
};

struct FileHandleTraits {
    using type = HANDLE;
    static type invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(type handle) noexcept { ::CloseHandle(handle); }
};

// Kernel handles whose failure value is null (processes, threads, events).
struct HandleTraits {
    using type = HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type handle) noexcept { ::CloseHandle(handle); }
};

struct BstrTraits {
    using type = BSTR;
    static type invalid() noexcept { return nullptr; }
    static void close(type text) noexcept { ::SysFreeString(text); }
};

// Buffers the system allocated for us with LocalAlloc (FormatMessageW).
struct LocalTextTraits {
    using type = wchar_t*;
    static type invalid() noexcept { return nullptr; }
    static void close(type text) noexcept { ::LocalFree(text); }
};

struct ModuleTraits {
    using type = HMODULE;
    static type invalid() noexcept { return nullptr; }
    static void close(type module) noexcept { ::FreeLibrary(module); }
};

using unique_hkey = unique_resource<HKeyTraits>;
using unique_file = unique_resource<FileHandleTraits>;
using unique_handle = unique_resource<HandleTraits>;
using unique_bstr = unique_resource<BstrTraits>;
using unique_local_text = unique_resource<LocalTextTraits>;
using unique_hmodule = unique_resource<ModuleTraits>;

}  // namespace zeph
