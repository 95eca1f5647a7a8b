#include "com/type_info.h"

#include "win/hresult.h"
#include "win/module_path.h"

#include <string>

namespace zeph {

HRESULT LoadInterfaceTypeInfo(REFGUID libid, WORD major, WORD minor, REFIID iid, ITypeInfo** typeInfo)
{
    if (typeInfo == nullptr) {
        return E_POINTER;
    }
    *typeInfo = nullptr;
    Microsoft::WRL::ComPtr<ITypeLib> library;
    HRESULT result = ::LoadRegTypeLib(libid, major, minor, LOCALE_NEUTRAL, &library);
    if (FAILED(result)) {
        std::wstring path;
        try {
            path = OwnModuleFilePath();
        } catch (const HResultError&) {
            return result;  // the registered library's failure says more
        }
        result = ::LoadTypeLibEx(path.c_str(), REGKIND_NONE, &library);
        if (FAILED(result)) {
            return result;
        }
    }
    return library->GetTypeInfoOfGuid(iid, typeInfo);
}

}  // namespace zeph
