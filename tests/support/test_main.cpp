// Every test process joins the multithreaded apartment, as the host's threads do.
#include <gtest/gtest.h>

#include <objbase.h>

int main(int argc, char** argv)
{
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    ::CoUninitialize();
    return result;
}
