// The provider's IDispatch with its own type library unregistered: the type
// information then comes from the DLL file. (Registered, a script client drives
// it: late_bound_client.)
#include "module_env.h"
#include "recording_logger.h"
#include "test_com_object.h"
#include "win/com_strings.h"

#include <agent.h>
#include <zeph_eventlog_h.h>

#include <gtest/gtest.h>
#include <wrl/client.h>

namespace zeph::test {
namespace {

using Microsoft::WRL::ComPtr;

TEST(DispatchTest, TypeInformationComesFromTheDllWhenItsLibraryIsNotRegistered)
{
    // Late binding needs the host's library registered, as the host's installer does.
    ScratchRegistry registry;
    LoadedServer server;
    ASSERT_TRUE(server.Loaded());
    ComPtr<ITypeLib> agent;
    std::wstring agentPath = BinFolder() + L"Agent.tlb";
    ASSERT_EQ(::LoadTypeLibEx(agentPath.c_str(), REGKIND_NONE, &agent), S_OK);
    ASSERT_EQ(::RegisterTypeLib(agent.Get(), agentPath.data(), nullptr), S_OK);
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(server.GetClassObject(CLSID_Provider, IID_PPV_ARGS(&factory)), S_OK);
    ComPtr<IZephDataProvider> provider;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&provider)), S_OK);
    factory.Reset();
    const auto logger = Adopt(new RecordingLogger(0x7));
    ASSERT_EQ(provider->SetHostInterfaces(logger.Get(), Adopt(new CountingHostContext()).Get()), S_OK);

    ComPtr<ITypeInfo> info;
    ASSERT_EQ(provider->GetTypeInfo(0, LOCALE_USER_DEFAULT, &info), S_OK);
    TYPEATTR* attributes = nullptr;
    ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
    EXPECT_EQ(attributes->guid, __uuidof(IZephDataProvider));
    info->ReleaseTypeAttr(attributes);
    info.Reset();

    LPOLESTR names[] = {const_cast<LPOLESTR>(L"QueryMetric")};
    DISPID id = DISPID_UNKNOWN;
    ASSERT_EQ(provider->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id), S_OK);
    const unique_bstr name = MakeBstr(L"nothing|here");
    VARIANTARG arguments[3] = {};  // in reverse order: sink, context, name
    arguments[0].vt = VT_UNKNOWN;
    arguments[1].vt = VT_I4;
    arguments[2].vt = VT_BSTR;
    arguments[2].bstrVal = name.get();
    DISPPARAMS parameters = {arguments, nullptr, 3, 0};
    VARIANT result;
    ::VariantInit(&result);
    EXPECT_EQ(provider->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &parameters, &result, nullptr,
                               nullptr),
              S_OK);
    EXPECT_EQ(logger->Texts(),
              std::vector<std::wstring>{L"Metric 'nothing|here' should be queried from internal metric."});
}

}  // namespace
}  // namespace zeph::test
