// The module object itself, linked into the test: the global interface table
// it hands out, and the library id the provider's IDispatch loads by.
#include "event_log_provider_module.h"
#include "provider.h"
#include "test_com_object.h"

#include "zeph_eventlog_h.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;

TEST(ModuleObjectTest, GlobalInterfaceTableIsCreatedOnceAndHandedOutWithAReference)
{
    CEventLogProviderModule module;
    EXPECT_EQ(module.GetGlobalInterfaceTable(nullptr), E_POINTER);

    ComPtr<IGlobalInterfaceTable> first;
    ComPtr<IGlobalInterfaceTable> second;
    ASSERT_EQ(module.GetGlobalInterfaceTable(&first), S_OK);
    ASSERT_EQ(module.GetGlobalInterfaceTable(&second), S_OK);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first.Get(), second.Get());

    auto* object = new test::CountingHostContext();
    DWORD cookie = 0;
    ASSERT_EQ(first->RegisterInterfaceInGlobal(object, IID_IUnknown, &cookie), S_OK);
    ComPtr<IUnknown> back;
    ASSERT_EQ(second->GetInterfaceFromGlobal(cookie, IID_PPV_ARGS(&back)), S_OK);
    EXPECT_EQ(back.Get(), object);
    back.Reset();
    EXPECT_EQ(first->RevokeInterfaceFromGlobal(cookie), S_OK);
    EXPECT_EQ(object->References(), 1u);
    object->Release();
}

TEST(ModuleObjectTest, ProviderUsesTheLibraryIdOfTheTypeLibrary)
{
    EXPECT_EQ(EventLogProviderLib::kLibId, LIBID_EventLogProviderLib);
    EXPECT_EQ(EventLogProviderLib::kMajor, 1);
    EXPECT_EQ(EventLogProviderLib::kMinor, 0);
}

}  // namespace
}  // namespace zeph
