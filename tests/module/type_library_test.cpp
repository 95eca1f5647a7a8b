// The DLL's resources (type library, version block, project name) and the
// provider's IDispatch, which works from the DLL's own type library when that
// library is not registered.
#include "com_strings.h"
#include "loaded_server.h"
#include "recording_logger.h"
#include "scratch_registry.h"
#include "test_com_object.h"

#include "zeph_eventlog_h.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <string>

namespace zeph::test {
namespace {

using Microsoft::WRL::ComPtr;

std::wstring Documentation(ITypeLib* library, INT index, std::wstring* name = nullptr)
{
    BSTR nameText = nullptr;
    BSTR docText = nullptr;
    EXPECT_EQ(library->GetDocumentation(index, &nameText, &docText, nullptr, nullptr), S_OK);
    const unique_bstr nameHolder(nameText);
    const unique_bstr docHolder(docText);
    if (name != nullptr) {
        *name = nameText != nullptr ? nameText : L"";
    }
    return docText != nullptr ? docText : L"";
}

std::wstring VersionString(const std::wstring& path, const wchar_t* field)
{
    DWORD handle = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(path.c_str(), &handle);
    std::vector<BYTE> block(size);
    if (size == 0 || !::GetFileVersionInfoW(path.c_str(), 0, size, block.data())) {
        return L"<no version block>";
    }
    void* value = nullptr;
    UINT length = 0;
    const std::wstring query = std::wstring(L"\\StringFileInfo\\040904B0\\") + field;
    if (!::VerQueryValueW(block.data(), query.c_str(), &value, &length)) {
        return L"<missing>";
    }
    return static_cast<const wchar_t*>(value);
}

TEST(ResourcesTest, TypeLibraryVersionBlockAndProjectNameAreInTheDll)
{
    LoadedServer server;
    ASSERT_TRUE(server.Loaded());

    ComPtr<ITypeLib> library;
    ASSERT_EQ(::LoadTypeLibEx(server.Path().c_str(), REGKIND_NONE, &library), S_OK);
    TLIBATTR* attributes = nullptr;
    ASSERT_EQ(library->GetLibAttr(&attributes), S_OK);
    EXPECT_EQ(attributes->guid, LIBID_EventLogProviderLib);
    EXPECT_EQ(attributes->wMajorVerNum, 1);
    EXPECT_EQ(attributes->wMinorVerNum, 0);
    library->ReleaseTLibAttr(attributes);
    std::wstring name;
    EXPECT_EQ(Documentation(library.Get(), -1, &name), L"Zeph Event Log Provider 1.0 Type Library");
    EXPECT_EQ(name, L"EventLogProviderLib");

    ComPtr<ITypeInfo> coclass;
    ASSERT_EQ(library->GetTypeInfoOfGuid(CLSID_Provider, &coclass), S_OK);
    BSTR className = nullptr;
    BSTR classDoc = nullptr;
    ASSERT_EQ(coclass->GetDocumentation(MEMBERID_NIL, &className, &classDoc, nullptr, nullptr), S_OK);
    const unique_bstr classNameHolder(className);
    const unique_bstr classDocHolder(classDoc);
    EXPECT_STREQ(className, L"Provider");
    EXPECT_STREQ(classDoc, L"Zeph Event Log Provider Class");
    INT flags = 0;
    ASSERT_EQ(coclass->GetImplTypeFlags(0, &flags), S_OK);
    EXPECT_TRUE(flags & IMPLTYPEFLAG_FDEFAULT);
    HREFTYPE reference = 0;
    ASSERT_EQ(coclass->GetRefTypeOfImplType(0, &reference), S_OK);
    ComPtr<ITypeInfo> defaultInterface;
    ASSERT_EQ(coclass->GetRefTypeInfo(reference, &defaultInterface), S_OK);
    TYPEATTR* typeAttributes = nullptr;
    ASSERT_EQ(defaultInterface->GetTypeAttr(&typeAttributes), S_OK);
    EXPECT_EQ(typeAttributes->guid, __uuidof(IZephDataProvider));
    defaultInterface->ReleaseTypeAttr(typeAttributes);
    // The type library holds no reference to the DLL that LoadedServer would trip over.
    defaultInterface.Reset();
    coclass.Reset();
    library.Reset();

    EXPECT_EQ(VersionString(server.Path(), L"FileDescription"), L"eventlog provider 64-bit");
    EXPECT_EQ(VersionString(server.Path(), L"InternalName"), L"zeph_eventlog.dll");
    EXPECT_EQ(VersionString(server.Path(), L"OriginalFilename"), L"zeph_eventlog.dll");

    wchar_t projectName[64] = {};
    EXPECT_EQ(::LoadStringW(server.Module(), 100, projectName, 64), 16);
    EXPECT_STREQ(projectName, L"EventLogProvider");
}

// Late binding needs the host's library registered, as the host's installer
// does; here it goes into a scratch classes root. The provider's own library
// stays unregistered, so its type information comes from the DLL file.
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
        ASSERT_EQ(provider_->SetHostInterfaces(logger_, context_), S_OK);
    }
    void TearDown() override
    {
        provider_.Reset();
        logger_->Release();
        context_->Release();
    }

    DISPID Id(const wchar_t* name)
    {
        LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
        DISPID id = DISPID_UNKNOWN;
        EXPECT_EQ(provider_->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id), S_OK) << name;
        return id;
    }

    ScratchRegistry registry_{L"module-dispatch"};
    LoadedServer server_;
    ComPtr<IZephDataProvider> provider_;
    RecordingLogger* logger_ = new RecordingLogger(0x7);
    CountingHostContext* context_ = new CountingHostContext();
};

TEST_F(DispatchTest, TypeInformationNamesAndInvokeReachTheProvidersMethods)
{
    UINT count = 0;
    ASSERT_EQ(provider_->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(provider_->GetTypeInfo(0, LOCALE_USER_DEFAULT, &info), S_OK);
    TYPEATTR* attributes = nullptr;
    ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
    EXPECT_EQ(attributes->guid, __uuidof(IZephDataProvider));
    info->ReleaseTypeAttr(attributes);
    EXPECT_EQ(provider_->GetTypeInfo(1, LOCALE_USER_DEFAULT, &info), DISP_E_BADINDEX);

    LPOLESTR unknown[] = {const_cast<LPOLESTR>(L"NoSuchMethod")};
    DISPID id = 0;
    EXPECT_EQ(provider_->GetIDsOfNames(IID_NULL, unknown, 1, LOCALE_USER_DEFAULT, &id), DISP_E_UNKNOWNNAME);

    // A method of the base interface, from the host's library.
    DISPPARAMS none = {};
    VARIANT result;
    ::VariantInit(&result);
    ASSERT_EQ(provider_->Invoke(Id(L"UnsubscribeAllMetrics"), IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none,
                                &result, nullptr, nullptr),
              S_OK);
    EXPECT_EQ(provider_->Invoke(Id(L"Reserved6"), IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, &result,
                                nullptr, nullptr),
              S_OK);

    // Arguments travel in reverse order: name, context, sink.
    const unique_bstr name = MakeBstr(L"nothing|here");
    VARIANTARG arguments[3];
    for (VARIANTARG& argument : arguments) {
        ::VariantInit(&argument);
    }
    arguments[2].vt = VT_BSTR;
    arguments[2].bstrVal = name.get();
    arguments[1].vt = VT_I4;
    arguments[1].lVal = 42;
    arguments[0].vt = VT_UNKNOWN;
    arguments[0].punkVal = nullptr;
    DISPPARAMS query = {arguments, nullptr, 3, 0};
    EXPECT_EQ(provider_->Invoke(Id(L"QueryMetric"), IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &query, &result,
                                nullptr, nullptr),
              S_OK);

    EXPECT_EQ(logger_->Texts(), (std::vector<std::wstring>{
                                    L"Unsubscribed all metrics.",
                                    L"Metric 'nothing|here' should be queried from internal metric.",
                                }));
}

}  // namespace
}  // namespace zeph::test
