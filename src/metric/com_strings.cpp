#include "com_strings.h"

#include "hresult.h"

namespace zeph {

unique_bstr MakeBstr(std::wstring_view text)
{
    unique_bstr result(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    if (!result) {
        ThrowHResult(E_OUTOFMEMORY);
    }
    return result;
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
