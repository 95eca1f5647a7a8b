#include "module/event_log_provider_module.h"

#include "com/class_factory.h"
#include "com/module_lock.h"
#include "module/registration_tables.h"
#include "provider/provider.h"
#include "win/com_strings.h"
#include "win/hresult.h"
#include "win/module_path.h"
#include "win/unique_resource.h"

#include <zeph_eventlog_h.h>

#include <oleauto.h>
#include <wrl/client.h>

#include <cwchar>

#ifdef __MINGW32__
// In oleaut32 and the Windows SDK's oleauto.h, but not in MinGW's headers.
WINOLEAUTAPI RegisterTypeLibForUser(ITypeLib* library, OLECHAR* fullPath, OLECHAR* helpDir);
WINOLEAUTAPI UnRegisterTypeLibForUser(REFGUID libid, WORD major, WORD minor, LCID lcid, SYSKIND syskind);
#endif

namespace zeph {

namespace {

using Microsoft::WRL::ComPtr;

constexpr LCID kSystemDefaultLocale = 0x0800;
constexpr wchar_t kPerUserClasses[] = L"Software\\Classes";

// Registration runs in the system default locale; the caller's comes back on every way out.
class ThreadLocaleScope {
public:
    ThreadLocaleScope() noexcept : saved_(::GetThreadLocale()) { ::SetThreadLocale(kSystemDefaultLocale); }
    ~ThreadLocaleScope() { ::SetThreadLocale(saved_); }
    ThreadLocaleScope(const ThreadLocaleScope&) = delete;
    ThreadLocaleScope& operator=(const ThreadLocaleScope&) = delete;

private:
    LCID saved_;
};

// HKEY_CLASSES_ROOT, or the current user's classes key, which is opened (and
// created if need be) for the duration of one registration call.
class ClassesRoot {
public:
    explicit ClassesRoot(bool perUser)
    {
        if (perUser) {
            const LSTATUS status =
                ::RegCreateKeyExW(HKEY_CURRENT_USER, kPerUserClasses, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                  KEY_ALL_ACCESS, nullptr, userClasses_.put(), nullptr);
            if (status != ERROR_SUCCESS) {
                ThrowHResult(HResultFromWin32(status));
            }
        }
    }
    HKEY get() const noexcept { return userClasses_ ? userClasses_.get() : HKEY_CLASSES_ROOT; }

private:
    unique_hkey userClasses_;
};

struct TypeLibAttributes {
    GUID libid;
    WORD major;
    WORD minor;
    LCID lcid;
    SYSKIND syskind;
};

// The variables of the registration tables: the DLL's path and the IDL's GUIDs.
RegistryReplacements Replacements(const std::wstring& modulePath)
{
    return {{kModuleReplacement, modulePath},
            {kAppIdReplacement, GuidString(APPID_EventLogProvider)},
            {kClsidReplacement, GuidString(CLSID_Provider)},
            {kLibIdReplacement, GuidString(LIBID_EventLogProviderLib)}};
}

[[nodiscard]] HRESULT LoadOwnTypeLib(const std::wstring& path, ComPtr<ITypeLib>& library, TypeLibAttributes& attributes)
{
    HRESULT result = ::LoadTypeLibEx(path.c_str(), REGKIND_NONE, &library);
    if (FAILED(result)) {
        return result;
    }
    TLIBATTR* attr = nullptr;
    result = library->GetLibAttr(&attr);
    if (FAILED(result)) {
        return result;
    }
    attributes = {attr->guid, attr->wMajorVerNum, attr->wMinorVerNum, attr->lcid, attr->syskind};
    library->ReleaseTLibAttr(attr);
    return S_OK;
}

[[nodiscard]] HRESULT RegisterTypeLibrary(const std::wstring& path, bool perUser)
{
    ComPtr<ITypeLib> library;
    TypeLibAttributes attributes{};
    const HRESULT result = LoadOwnTypeLib(path, library, attributes);
    if (FAILED(result)) {
        return result;
    }
    std::wstring fullPath = path;  // both take a non-const string
    return perUser ? ::RegisterTypeLibForUser(library.Get(), fullPath.data(), nullptr)
                   : ::RegisterTypeLib(library.Get(), fullPath.data(), nullptr);
}

// A library that is not registered needs no undoing, so unregistering twice,
// or after a registration that failed early, succeeds.
[[nodiscard]] HRESULT UnregisterTypeLibrary(const std::wstring& path, bool perUser)
{
    ComPtr<ITypeLib> library;
    TypeLibAttributes a{};
    const HRESULT result = LoadOwnTypeLib(path, library, a);
    if (FAILED(result)) {
        return result;
    }
    unique_bstr registeredPath;
    if (FAILED(::QueryPathOfRegTypeLib(a.libid, a.major, a.minor, a.lcid, registeredPath.put()))) {
        return S_OK;
    }
    return perUser ? ::UnRegisterTypeLibForUser(a.libid, a.major, a.minor, a.lcid, a.syskind)
                   : ::UnRegisterTypeLib(a.libid, a.major, a.minor, a.lcid, a.syskind);
}

}  // namespace

HRESULT CEventLogProviderModule::CanUnloadNow() const noexcept
{
    return ModuleLockCount() == 0 ? S_OK : S_FALSE;
}

HRESULT CEventLogProviderModule::GetClassObject(REFCLSID clsid, REFIID riid, void** object) noexcept
{
    if (object == nullptr) {
        return E_POINTER;
    }
    *object = nullptr;
    if (clsid != CLSID_Provider) {
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    return ClassFactory<CProvider>::Instance().QueryInterface(riid, object);
}

HRESULT CEventLogProviderModule::Register()
{
    const bool perUser = RegistersPerUser();
    const std::wstring path = OwnModuleFilePath();
    const RegistryReplacements replacements = Replacements(path);
    const ClassesRoot root(perUser);
    HRESULT result = RegisterTable(root.get(), kAppIdTable, replacements);
    if (FAILED(result)) {
        return result;
    }
    // The provider declares no component categories, so its class table is all there is.
    result = RegisterTable(root.get(), kProviderClassTable, replacements);
    if (FAILED(result)) {
        return result;
    }
    return RegisterTypeLibrary(path, perUser);
}

HRESULT CEventLogProviderModule::Unregister()
{
    const bool perUser = RegistersPerUser();
    const std::wstring path = OwnModuleFilePath();
    const RegistryReplacements replacements = Replacements(path);
    const ClassesRoot root(perUser);
    HRESULT result = UnregisterTable(root.get(), kProviderClassTable, replacements);
    if (FAILED(result)) {
        return result;
    }
    result = UnregisterTypeLibrary(path, perUser);
    if (FAILED(result)) {
        return result;
    }
    return UnregisterTable(root.get(), kAppIdTable, replacements);
}

HRESULT CEventLogProviderModule::RegisterServer() noexcept
{
    const ThreadLocaleScope locale;
    return ComBarrier([&] { return Register(); });
}

HRESULT CEventLogProviderModule::UnregisterServer() noexcept
{
    const ThreadLocaleScope locale;
    return ComBarrier([&] { return Unregister(); });
}

HRESULT CEventLogProviderModule::Install(BOOL install, const wchar_t* commandLine) noexcept
{
    // Five characters: the terminating zero takes part, so "userx" is no match.
    if (commandLine != nullptr && ::_wcsnicmp(commandLine, L"user", 5) == 0) {
        perUser_.store(true);
    }
    if (!install) {
        return UnregisterServer();
    }
    const HRESULT result = RegisterServer();
    if (FAILED(result)) {
        // Take back what the steps before the failure wrote; the failure that
        // counts is the registration's.
        (void)UnregisterServer();
        return result;
    }
    return S_OK;
}

}  // namespace zeph
