#include "win/com_strings.h"

#include "win/hresult.h"

#include <objbase.h>

#include <iterator>
#include <new>

namespace zeph {

unique_bstr MakeBstr(std::wstring_view text)
{
    unique_bstr result(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    if (!result) {
        throw std::bad_alloc();
    }
    return result;
}

std::wstring GuidString(REFGUID guid)
{
    wchar_t text[39] = {};  // braces, 32 digits, 4 dashes and the terminating zero
    const int length = ::StringFromGUID2(guid, text, static_cast<int>(std::size(text)));
    return std::wstring(text, length > 0 ? static_cast<size_t>(length - 1) : 0);
}

void ScopedVariant::Clear()
{
    ThrowIfFailed(::VariantClear(&value_));
}

void ScopedVariant::SetString(std::wstring_view text)
{
    Clear();
    V_BSTR(&value_) = MakeBstr(text).release();
    V_VT(&value_) = VT_BSTR;
}

void ScopedVariant::SetUInt64(ULONGLONG number)
{
    Clear();
    V_VT(&value_) = VT_UI8;
    V_UI8(&value_) = number;
}

}  // namespace zeph
