// The class factory, a whole session and the unload rule through the DLL's exports.
#include "config_element.h"
#include "module_env.h"
#include "observed.h"
#include "provider/provider.h"
#include "support/host_logger.h"
#include "support/host_value_sink.h"
#include "simulated_event_log.h"
#include "win/com_strings.h"

#include <zeph_eventlog_h.h>

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <string_view>
#include <vector>

namespace zeph::test {
namespace {

using Microsoft::WRL::ComPtr;

const CLSID kOtherClsid = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};
const CLSID kOuterClassId = {0x0badc0de, 0x1234, 0x5678, {0x9a, 0xbc, 0xde, 0xf0, 0x12, 0x34, 0x56, 0x78}};

// Aggregates the provider: IPersist is its own, the rest goes to the inner unknown.
class OuterObject final : public RefCountedObject<IPersist> {
public:
    ~OuterObject() override
    {
        if (inner_ != nullptr) {
            inner_->Release();
        }
    }
    STDMETHODIMP QueryInterface(REFIID riid, void** object) override
    {
        const HRESULT own = RefCountedObject<IPersist>::QueryInterface(riid, object);
        return SUCCEEDED(own) || inner_ == nullptr ? own : inner_->QueryInterface(riid, object);
    }
    STDMETHODIMP GetClassID(CLSID* classId) override
    {
        *classId = kOuterClassId;
        return S_OK;
    }

    IUnknown* inner_ = nullptr;
};

class ClassObjectTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server_.Loaded()); }
    ComPtr<IClassFactory> Factory()
    {
        ComPtr<IClassFactory> factory;
        EXPECT_EQ(server_.GetClassObject(CLSID_Provider, IID_PPV_ARGS(&factory)), S_OK);
        return factory;
    }

    LoadedServer server_;
};

TEST_F(ClassObjectTest, OneSharedFactoryForTheProviderClassAndNoneForAnyOther)
{
    ComPtr<IClassFactory> first = Factory();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first.Get(), Factory().Get());

    void* object = &object;
    EXPECT_EQ(server_.GetClassObject(kOtherClsid, IID_IClassFactory, &object), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(object, nullptr);
    object = &object;
    EXPECT_EQ(server_.GetClassObject(CLSID_Provider, __uuidof(IZephDataProvider), &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(server_.GetClassObject(CLSID_Provider, IID_IClassFactory, nullptr), E_POINTER);

    // A creation that fails leaves nothing alive.
    object = &object;
    EXPECT_EQ(first->CreateInstance(nullptr, IID_IPersist, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    first.Reset();
    EXPECT_EQ(server_.CanUnloadNow(), S_OK);
}

TEST_F(ClassObjectTest, CanUnloadNowOnlyWhenNoFactoryProviderOrServerLockRemains)
{
    EXPECT_EQ(server_.CanUnloadNow(), S_OK);
    ComPtr<IClassFactory> factory = Factory();
    EXPECT_EQ(server_.CanUnloadNow(), S_FALSE);  // a held class object keeps the DLL too
    ComPtr<IZephDataProvider> provider, another;
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&provider)), S_OK);
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&another)), S_OK);
    EXPECT_NE(provider.Get(), another.Get());
    factory.Reset();
    EXPECT_EQ(server_.CanUnloadNow(), S_FALSE);
    provider.Reset();
    EXPECT_EQ(server_.CanUnloadNow(), S_FALSE);
    another.Reset();
    EXPECT_EQ(server_.CanUnloadNow(), S_OK);

    Factory()->LockServer(TRUE);
    Factory()->LockServer(TRUE);
    Factory()->LockServer(FALSE);
    EXPECT_EQ(server_.CanUnloadNow(), S_FALSE);
    Factory()->LockServer(FALSE);
    EXPECT_EQ(server_.CanUnloadNow(), S_OK);
}

// Both real metrics, events, queries, and a release with a delivery possibly in flight:
// every host object gets its references back and the DLL may go.
TEST_F(ClassObjectTest, ASessionGivesBackEveryHostReferenceAndLetsTheDllGo)
{
    const auto logger = Adopt(new HostLogger(0x7));
    const auto context = Adopt(new HostContext());
    const auto sink = Adopt(new HostValueSink());
    const ComPtr<IXMLDOMElement> config = MakeMetricConfig(L"Application", L"*");
    const ULONG configReferences = (config->AddRef(), config->Release());
    const unique_bstr crash = MakeBstr(L"eventlog|eventlog_appcrash"),
                      layering = MakeBstr(L"eventlog|eventlog_quillon");
    {
        ComPtr<IZephDataProvider> provider;
        ASSERT_EQ(Factory()->CreateInstance(nullptr, IID_PPV_ARGS(&provider)), S_OK);
        ASSERT_EQ(provider->SetHostInterfaces(logger.Get(), context.Get()), S_OK);
        UINT count = 0;  // IDispatch's description of the provider, from the DLL's type library
        ComPtr<ITypeInfo> info;
        ITypeInfo* none = nullptr;
        EXPECT_TRUE(SUCCEEDED(provider->GetTypeInfoCount(&count)) && count == 1);
        EXPECT_EQ(provider->GetTypeInfo(0, LOCALE_USER_DEFAULT, &info), S_OK);
        EXPECT_EQ(provider->GetTypeInfo(1, LOCALE_USER_DEFAULT, &none), DISP_E_BADINDEX);
        ASSERT_EQ(provider->SubscribeMetric(crash.get(), config.Get()), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(layering.get(), config.Get()), S_OK);
        WriteEvent(L"Application", L"Application Error", 1000, 0, L"session crash");
        WaitForDeliveries();
        EXPECT_EQ(provider->QueryMetric(crash.get(), 0, sink.Get()), S_OK);
        EXPECT_EQ(provider->QueryMetric(layering.get(), 0, sink.Get()), S_OK);
        EXPECT_EQ(provider->QueryMetric(crash.get(), 0, context.Get()), S_OK);
        EXPECT_EQ(sink->Accepted().size(), 2u);
        EXPECT_EQ(provider->UnsubscribeMetric(layering.get()), S_OK);
        WriteEvent(L"Application", L"Application Error", 1000, 0, L"pending at release");
    }
    EXPECT_EQ(server_.CanUnloadNow(), S_OK);
    WaitForDeliveries();
    EXPECT_EQ(logger->References() + context->References() + sink->References(), 3u);
    EXPECT_EQ((config->AddRef(), config->Release()), configReferences);
}

// A host may load and free the DLL again and again (as COM does with unused
// libraries): each unload gives back the thread-local storage index its load
// took, or the process runs out of them after about a thousand loads.
TEST(DllReloadTest, EachUnloadGivesBackTheThreadLocalIndexItsLoadTook)
{
    const auto freeIndices = [] {
        std::vector<DWORD> taken;
        for (DWORD index; (index = ::TlsAlloc()) != TLS_OUT_OF_INDEXES;) {
            taken.push_back(index);
        }
        for (DWORD index : taken) {
            ::TlsFree(index);
        }
        return taken.size();
    };
    const size_t before = freeIndices();
    for (int load = 0; load < 3; ++load) {
        const LoadedServer server;
        ComPtr<IClassFactory> factory;
        EXPECT_EQ(server.GetClassObject(CLSID_Provider, IID_PPV_ARGS(&factory)), S_OK);
    }
    EXPECT_EQ(freeIndices(), before);
}

// The references a provider gives back while it is destroyed (its metric's, then its own) all go
// while the DLL still says S_FALSE, for the plain and the aggregated object; S_OK comes after.
TEST_F(ClassObjectTest, TheDllStaysLockedUntilTheProviderIsWhollyDestroyed)
{
    std::vector<HRESULT> answers;
    const auto askOnRelease = [&](const wchar_t* call) {
        if (std::wstring_view(call) == L"Release") {
            answers.push_back(server_.CanUnloadNow());
        }
    };
    const auto logger = Adopt(new Observed<HostLogger>(askOnRelease, 0x7));
    const auto context = Adopt(new Observed<HostContext>(askOnRelease));
    const ComPtr<IXMLDOMElement> config = MakeMetricConfig(L"Application", L"*");
    const unique_bstr crash = MakeBstr(L"eventlog|eventlog_appcrash");
    const auto connect = [&](IUnknown* object) {
        ComPtr<IZephDataProvider> provider;
        ASSERT_EQ(object->QueryInterface(IID_PPV_ARGS(&provider)), S_OK);
        ASSERT_EQ(provider->SetHostInterfaces(logger.Get(), context.Get()), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(crash.get(), config.Get()), S_OK);
        answers.clear();
    };
    const std::vector<HRESULT> stillLocked(4, S_FALSE);

    ComPtr<IUnknown> plain;
    ASSERT_EQ(Factory()->CreateInstance(nullptr, IID_PPV_ARGS(&plain)), S_OK);
    connect(plain.Get());
    plain.Reset();
    EXPECT_EQ(answers, stillLocked);
    EXPECT_EQ(server_.CanUnloadNow(), S_OK);

    auto* outer = new OuterObject();
    ASSERT_EQ(Factory()->CreateInstance(outer, IID_IUnknown, reinterpret_cast<void**>(&outer->inner_)), S_OK);
    connect(outer);
    outer->Release();
    EXPECT_EQ(answers, stillLocked);
    EXPECT_EQ(server_.CanUnloadNow(), S_OK);
}

TEST_F(ClassObjectTest, AggregatedProviderTakesTheOuterObjectsIdentityAndCount)
{
    ComPtr<IClassFactory> factory = Factory();
    auto* outer = new OuterObject();

    // With an outer object only the inner unknown may be asked for.
    void* refused = &refused;
    EXPECT_EQ(factory->CreateInstance(outer, __uuidof(IZephDataProvider), &refused), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(factory->CreateInstance(outer, IID_IDispatch, &refused), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(outer->References(), 1u);

    ASSERT_EQ(factory->CreateInstance(outer, IID_IUnknown, reinterpret_cast<void**>(&outer->inner_)), S_OK);
    ASSERT_NE(outer->inner_, nullptr);
    factory.Reset();

    // The inner unknown is an identity of its own.
    ComPtr<IUnknown> identity;
    ASSERT_EQ(outer->inner_->QueryInterface(IID_PPV_ARGS(&identity)), S_OK);
    EXPECT_EQ(identity.Get(), outer->inner_);

    // The provider's interfaces are counted on the outer object and answer for it.
    ComPtr<IZephDataProvider> provider;
    ASSERT_EQ(outer->QueryInterface(IID_PPV_ARGS(&provider)), S_OK);
    EXPECT_EQ(outer->References(), 2u);
    ASSERT_EQ(provider->QueryInterface(IID_PPV_ARGS(&identity)), S_OK);
    EXPECT_EQ(identity.Get(), static_cast<IUnknown*>(outer));
    ComPtr<IPersist> persist;
    ASSERT_EQ(provider.As(&persist), S_OK);
    CLSID classId{};
    ASSERT_EQ(persist->GetClassID(&classId), S_OK);
    EXPECT_EQ(classId, kOuterClassId);
    EXPECT_EQ(outer->References(), 4u);
    EXPECT_EQ(provider->Reserved1(), S_OK);

    identity.Reset();
    persist.Reset();
    provider.Reset();
    EXPECT_EQ(outer->References(), 1u);
    EXPECT_EQ(server_.CanUnloadNow(), S_FALSE);
    outer->Release();  // takes the inner object with it
    EXPECT_EQ(server_.CanUnloadNow(), S_OK);
}

}  // namespace
}  // namespace zeph::test
