// The DLL's resources (type library, version block, string 100) and the
// provider's IDispatch, which works from the DLL's own type library when that
// library is not registered.
#include "com/type_info.h"
#include "module_env.h"
#include "recording_logger.h"
#include "test_com_object.h"
#include "win/com_strings.h"

#include <agent.h>
#include <zeph_eventlog_h.h>

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <new>

// Every allocation of this executable comes here, so a test can make them fail
// on its own thread for a while.
namespace {
thread_local bool t_failAllocations = false;
}

void* operator new(std::size_t size)
{
    void* block = t_failAllocations ? nullptr : ::HeapAlloc(::GetProcessHeap(), 0, size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
void operator delete(void* block) noexcept
{
    if (block != nullptr) {
        ::HeapFree(::GetProcessHeap(), 0, block);
    }
}
void operator delete(void* block, std::size_t) noexcept
{
    operator delete(block);
}

namespace zeph::test {
namespace {

using Microsoft::WRL::ComPtr;

// Name and documentation string of a type (or, with index -1, of the library).
using Doc = std::pair<std::wstring, std::wstring>;

template <typename Info>
Doc Documentation(Info* info, INT index)
{
    unique_bstr name, doc;
    EXPECT_EQ(info->GetDocumentation(index, name.put(), doc.put(), nullptr, nullptr), S_OK);
    return {name ? name.get() : L"", doc ? doc.get() : L""};
}

GUID TypeGuid(ITypeInfo* info)
{
    TYPEATTR* attributes = nullptr;
    EXPECT_EQ(info->GetTypeAttr(&attributes), S_OK);
    const GUID guid = attributes != nullptr ? attributes->guid : GUID_NULL;
    info->ReleaseTypeAttr(attributes);
    return guid;
}

std::wstring VersionString(const std::wstring& path, const wchar_t* field)
{
    DWORD handle = 0;
    std::vector<BYTE> block(::GetFileVersionInfoSizeW(path.c_str(), &handle));
    void* value = nullptr;
    UINT length = 0;
    if (block.empty() || !::GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) ||
        !::VerQueryValueW(block.data(), (std::wstring(L"\\StringFileInfo\\040904B0\\") + field).c_str(), &value,
                          &length)) {
        return L"<missing>";
    }
    return static_cast<const wchar_t*>(value);
}

TEST(ResourcesTest, TypeLibraryVersionBlockAndProjectNameAreInTheDll)
{
    LoadedServer server;
    ASSERT_TRUE(server.Loaded());
    {
        ComPtr<ITypeLib> library;
        ASSERT_EQ(::LoadTypeLibEx(server.Path().c_str(), REGKIND_NONE, &library), S_OK);
        TLIBATTR* attributes = nullptr;
        ASSERT_EQ(library->GetLibAttr(&attributes), S_OK);
        EXPECT_EQ(attributes->guid, LIBID_EventLogProviderLib);
        EXPECT_EQ(attributes->wMajorVerNum, 1);
        EXPECT_EQ(attributes->wMinorVerNum, 0);
        library->ReleaseTLibAttr(attributes);
        EXPECT_EQ(Documentation(library.Get(), -1),
                  (Doc{L"EventLogProviderLib", L"Zeph Event Log Provider 1.0 Type Library"}));

        ComPtr<ITypeInfo> coclass;
        ASSERT_EQ(library->GetTypeInfoOfGuid(CLSID_Provider, &coclass), S_OK);
        EXPECT_EQ(Documentation(coclass.Get(), MEMBERID_NIL), (Doc{L"Provider", L"Zeph Event Log Provider Class"}));
    }  // released before LoadedServer checks that nothing holds the DLL

    EXPECT_EQ(VersionString(server.Path(), L"FileDescription"), L"eventlog provider 64-bit");
    EXPECT_EQ(VersionString(server.Path(), L"InternalName"), L"zeph_eventlog.dll");
    EXPECT_EQ(VersionString(server.Path(), L"OriginalFilename"), L"zeph_eventlog.dll");
    wchar_t projectName[64] = {};
    EXPECT_EQ(::LoadStringW(server.Module(), 100, projectName, 64), 16);
    EXPECT_STREQ(projectName, L"EventLogProvider");
}

// Late binding needs the host's library registered, as the host's installer
// does; here into a scratch classes root. The provider's own library stays
// unregistered, so its type information comes from the DLL file.
class DispatchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server_.Loaded());
        ComPtr<ITypeLib> agent;
        std::wstring agentPath = LoadedServer::BinFolder() + L"Agent.tlb";
        ASSERT_EQ(::LoadTypeLibEx(agentPath.c_str(), REGKIND_NONE, &agent), S_OK);
        ASSERT_EQ(::RegisterTypeLib(agent.Get(), agentPath.data(), nullptr), S_OK);
        ComPtr<IClassFactory> factory;
        ASSERT_EQ(server_.GetClassObject(CLSID_Provider, IID_PPV_ARGS(&factory)), S_OK);
        ASSERT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&provider_)), S_OK);
        ASSERT_EQ(provider_->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK);
    }
    void TearDown() override { provider_.Reset(); }

    HRESULT Invoke(const wchar_t* name, std::vector<VARIANTARG> arguments = {})
    {
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        DISPID id = DISPID_UNKNOWN;
        EXPECT_EQ(provider_->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id), S_OK) << name;
        DISPPARAMS parameters = {arguments.data(), nullptr, static_cast<UINT>(arguments.size()), 0};
        VARIANT result;
        ::VariantInit(&result);
        return provider_->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &parameters, &result, nullptr,
                                 nullptr);
    }

    ScratchRegistry registry_{L"module-dispatch"};
    LoadedServer server_;
    ComPtr<IZephDataProvider> provider_;
    ComPtr<RecordingLogger> logger_ = Adopt(new RecordingLogger(0x7));
    ComPtr<CountingHostContext> context_ = Adopt(new CountingHostContext());
};

TEST_F(DispatchTest, TypeInformationNamesAndInvokeReachTheProvidersMethods)
{
    UINT count = 0;
    ASSERT_EQ(provider_->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(provider_->GetTypeInfo(0, LOCALE_USER_DEFAULT, &info), S_OK);
    EXPECT_EQ(TypeGuid(info.Get()), __uuidof(IZephDataProvider));
    EXPECT_EQ(provider_->GetTypeInfo(1, LOCALE_USER_DEFAULT, &info), DISP_E_BADINDEX);
    LPOLESTR unknown[] = {const_cast<LPOLESTR>(L"NoSuchMethod")};
    DISPID id = 0;
    EXPECT_EQ(provider_->GetIDsOfNames(IID_NULL, unknown, 1, LOCALE_USER_DEFAULT, &id), DISP_E_UNKNOWNNAME);

    EXPECT_EQ(Invoke(L"UnsubscribeAllMetrics"), S_OK);  // a method of the base interface, from the host's library
    EXPECT_EQ(Invoke(L"Reserved6"), S_OK);
    // Arguments travel in reverse order: sink, context, name.
    const unique_bstr name = MakeBstr(L"nothing|here");
    std::vector<VARIANTARG> arguments(3);
    arguments[0].vt = VT_UNKNOWN;
    arguments[0].punkVal = nullptr;
    arguments[1].vt = VT_I4;
    arguments[1].lVal = 42;
    arguments[2].vt = VT_BSTR;
    arguments[2].bstrVal = name.get();
    EXPECT_EQ(Invoke(L"QueryMetric", arguments), S_OK);
    EXPECT_EQ(logger_->Texts(), (std::vector<std::wstring>{
                                    L"Unsubscribed all metrics.",
                                    L"Metric 'nothing|here' should be queried from internal metric.",
                                }));
}

// A library nobody registers: the type information is then looked for in the
// module file, which takes allocations.
struct UnregisteredLibrary {
    static constexpr GUID kLibId = {};
    static constexpr WORD kMajor = 1;
    static constexpr WORD kMinor = 0;
};

class DispatchOnly final : public DispatchImpl<IProviderLogger, UnregisteredLibrary> {
public:
    STDMETHODIMP QueryInterface(REFIID, void** object) override
    {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 1; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP HostReserved1() override { return S_OK; }
    STDMETHODIMP GetCategoryLevels(LPCWSTR, ULONG*) override { return S_OK; }
    STDMETHODIMP LogError(BSTR, BSTR) override { return S_OK; }
    STDMETHODIMP LogWarning(BSTR, BSTR) override { return S_OK; }
    STDMETHODIMP LogInfo(BSTR, BSTR) override { return S_OK; }
};

TEST(DispatchBarrierTest, AllocationFailureWhileLoadingTypeInformationIsOutOfMemory)
{
    DispatchOnly object;
    ITypeInfo* info = nullptr;
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"LogError")};
    DISPID id = DISPID_UNKNOWN;
    DISPPARAMS none = {};
    HRESULT results[3] = {};
    t_failAllocations = true;  // nothing between here and the reset may report
    results[0] = object.GetTypeInfo(0, LOCALE_USER_DEFAULT, &info);
    results[1] = object.GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    results[2] = object.Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr);
    t_failAllocations = false;
    EXPECT_EQ(results[0], E_OUTOFMEMORY);
    EXPECT_EQ(results[1], E_OUTOFMEMORY);
    EXPECT_EQ(results[2], E_OUTOFMEMORY);
    EXPECT_EQ(info, nullptr);
}

}  // namespace
}  // namespace zeph::test
