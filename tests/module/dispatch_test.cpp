// The provider's IDispatch, which works from the DLL's own type library when
// that library is not registered.
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

GUID TypeGuid(ITypeInfo* info)
{
    TYPEATTR* attributes = nullptr;
    EXPECT_EQ(info->GetTypeAttr(&attributes), S_OK);
    const GUID guid = attributes != nullptr ? attributes->guid : GUID_NULL;
    info->ReleaseTypeAttr(attributes);
    return guid;
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
        std::wstring agentPath = BinFolder() + L"Agent.tlb";
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

    ScratchRegistry registry_;
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

}  // namespace
}  // namespace zeph::test
