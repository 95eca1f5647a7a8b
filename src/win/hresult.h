// One exception type for failures inside the DLL, and the barrier that turns
// exceptions into HRESULTs at every COM method, export and callback.
// Functions that return an HRESULT or a success flag are [[nodiscard]]: where a
// result is dropped on purpose, the caller writes (void) and says why.
#pragma once

#include <windows.h>

#include <exception>

namespace zeph {

// Carries an HRESULT out of a helper. Allocation failures travel as
// std::bad_alloc or as this type with E_OUTOFMEMORY.
class HResultError : public std::exception {
public:
    explicit HResultError(HRESULT code) noexcept : code_(code) {}
    HRESULT Code() const noexcept { return code_; }
    const char* what() const noexcept override { return "HRESULT failure"; }

private:
    HRESULT code_;
};

[[noreturn]] void ThrowHResult(HRESULT code);

inline void ThrowIfFailed(HRESULT code)
{
    if (FAILED(code)) {
        ThrowHResult(code);
    }
}

// A Win32 code as an HRESULT: 0 and negative values pass unchanged, any other
// becomes (code & 0xFFFF) | 0x80070000.
[[nodiscard]] constexpr HRESULT HResultFromWin32(long code) noexcept
{
    return code <= 0 ? static_cast<HRESULT>(code)
                     : static_cast<HRESULT>((static_cast<unsigned long>(code) & 0xFFFFu) | 0x80070000u);
}

// Maps the exception being handled to an HRESULT: the one it carries,
// E_OUTOFMEMORY for an allocation failure, E_UNEXPECTED for anything else.
// Call only inside a catch block.
[[nodiscard]] HRESULT HResultFromCurrentException() noexcept;

// Runs body and returns its HRESULT; no exception gets past it.
template <typename Body>
[[nodiscard]] HRESULT ComBarrier(Body&& body) noexcept
{
    try {
        return body();
    } catch (...) {
        return HResultFromCurrentException();
    }
}

}  // namespace zeph
