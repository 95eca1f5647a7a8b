#include "names.h"

#include <windows.h>

#include <algorithm>

namespace evtsim {

std::wstring FoldCase(std::wstring_view name)
{
    std::wstring folded(name);
    const bool ascii = std::all_of(folded.begin(), folded.end(), [](wchar_t c) { return c < 0x80; });
    if (ascii) {
        for (wchar_t& c : folded) {
            if (c >= L'a' && c <= L'z') {
                c = static_cast<wchar_t>(c - L'a' + L'A');
            }
        }
        return folded;
    }
    // Simple case mapping keeps the length, so the copy can be mapped in place.
    // If the mapping fails the name stays as written, which still compares exactly.
    if (!folded.empty() && folded.size() < 0x7fffffff) {
        LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, name.data(), static_cast<int>(name.size()), folded.data(),
                      static_cast<int>(folded.size()), nullptr, nullptr, 0);
    }
    return folded;
}

}  // namespace evtsim
