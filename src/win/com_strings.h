// BSTR and VARIANT helpers for values that cross the COM boundary.
// Allocation failures throw std::bad_alloc; a VARIANT that cannot be cleared
// throws the HRESULT of the clearing.
#pragma once

#include "win/unique_resource.h"

#include <windows.h>
#include <oleauto.h>

#include <string>
#include <string_view>

namespace zeph {

// A BSTR holding text (its length taken from the view, so embedded zeros survive).
[[nodiscard]] unique_bstr MakeBstr(std::wstring_view text);

// The GUID in registry form, "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" (upper case).
[[nodiscard]] std::wstring GuidString(REFGUID guid);

// Owns a VARIANT and clears it when destroyed.
class ScopedVariant {
public:
    ScopedVariant() noexcept { ::VariantInit(&value_); }
    ~ScopedVariant() { ::VariantClear(&value_); }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;

    VARIANT* get() noexcept { return &value_; }
    const VARIANT* get() const noexcept { return &value_; }

    void Clear();                            // throws the HRESULT of VariantClear
    void SetString(std::wstring_view text);  // VT_BSTR holding a copy of text
    void SetUInt64(ULONGLONG number);        // VT_UI8

private:
    VARIANT value_;
};

}  // namespace zeph
