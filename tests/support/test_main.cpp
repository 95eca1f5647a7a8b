// Every test process joins the multithreaded apartment, as the host's threads do,
// and a call of the provider that breaks the host interfaces' contract fails the
// running test.
#include "support/host_object.h"

#include <gtest/gtest.h>

#include <objbase.h>

int main(int argc, char** argv)
{
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    zeph::ContractBreachHandlerSlot() = [](const std::wstring& what) { ADD_FAILURE() << testing::PrintToString(what); };
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    ::CoUninitialize();
    return result;
}
