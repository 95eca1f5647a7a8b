#include "win/hresult.h"

#include <new>

namespace zeph {

void ThrowHResult(HRESULT code)
{
    throw HResultError(code);
}

HRESULT HResultFromCurrentException() noexcept
{
    try {
        throw;
    } catch (const HResultError& error) {
        return error.Code();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

}  // namespace zeph
