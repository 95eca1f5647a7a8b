#include "metric/diagnostics.h"
#include "metric/logging.h"
#include "support/host_logger.h"
#include "support/host_object.h"
#include "win/hresult.h"
#include "win/com_strings.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace zeph {
namespace {

// What the system says about code, straight from FormatMessageW.
std::wstring SystemText(HRESULT code)
{
    wchar_t* text = nullptr;
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
                         nullptr, static_cast<DWORD>(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                         reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring result = length != 0 ? std::wstring(text, length) : std::wstring();
    ::LocalFree(text);
    return result;
}

TEST(FormatString, FormatsWideStringsIntegersAndHexLikeTheSystemRuntime)
{
    EXPECT_EQ(FormatString(L"Metric '%s' got %d, code 0x%08lx.", L"eventlog|x", -12, static_cast<long>(0x80070490)),
              L"Metric 'eventlog|x' got -12, code 0x80070490.");
    const std::wstring longText(100000, L'x');
    EXPECT_EQ(FormatString(L"[%s]", longText.c_str()), L"[" + longText + L"]");
}

TEST(Logging, WritesOnlyEnabledLevelsWithCategoryAndExactText)
{
    const auto logger = Adopt(new HostLogger(0x4));
    Log(logger.Get(), LogLevel::Info, L"created metric '%s'.", L"a|b");
    Log(logger.Get(), LogLevel::Error, L"dropped %d", 1);
    Log(logger.Get(), LogLevel::Warning, L"dropped too");
    logger->SetLevels(0x3);
    Log(logger.Get(), LogLevel::Error, L"error %d", 2);
    Log(logger.Get(), LogLevel::Warning, L"warning");
    Log(logger.Get(), LogLevel::Info, L"dropped as well");
    EXPECT_EQ(logger->Lines(), (std::vector<LogLine>{{LogLevel::Info, L"created metric 'a|b'."},
                                                     {LogLevel::Error, L"error 2"},
                                                     {LogLevel::Warning, L"warning"}}));
    EXPECT_EQ(logger->LevelQueries(), 6);

    // Formatting this argument would read an invalid address: nothing is formatted for a level
    // that is off, or without a logger.
    const auto* poison = reinterpret_cast<const wchar_t*>(static_cast<uintptr_t>(0x10));
    logger->SetLevels(0);
    Log(logger.Get(), LogLevel::Info, L"%s", poison);
    LogFailure(logger.Get(), E_FAIL, L"%s", poison);
    Log(nullptr, LogLevel::Error, L"%s", poison);
    LogFailure(nullptr, E_FAIL, L"%s", poison);
    EXPECT_EQ(logger->Lines().size(), 3u);
    EXPECT_EQ(logger->LevelQueries(), 8);
}

TEST(Logging, FailureLinesPutTheArgumentsFirstThenTheCodeThenAnySystemText)
{
    constexpr HRESULT kNoSystemText = static_cast<HRESULT>(0xA1B2C3D4);
    ASSERT_TRUE(SystemText(kNoSystemText).empty());
    ASSERT_FALSE(SystemText(E_OUTOFMEMORY).empty());
    const auto logger = Adopt(new HostLogger(0x1));
    logger->SetResult(E_FAIL);  // the logger's own failures are ignored
    LogFailure(logger.Get(), E_OUTOFMEMORY, L"Failed to retrieve property '%s' from the configuration.", L"query");
    LogFailure(logger.Get(), kNoSystemText, L"Failed to subscribe metric '%s'.", L"m");
    EXPECT_EQ(logger->Texts(),
              (std::vector<std::wstring>{L"Failed to retrieve property 'query' from the configuration.  Error code "
                                         L"0x8007000e -- " +
                                             SystemText(E_OUTOFMEMORY),
                                         L"Failed to subscribe metric 'm'.  Error code 0xa1b2c3d4."}));
}

TEST(ComBarrier, AnyOtherExceptionIsUnexpected)  // the provider suite throws the known ones
{
    EXPECT_EQ(ComBarrier([] { return S_FALSE; }), S_FALSE);
    EXPECT_EQ(ComBarrier([]() -> HRESULT { throw std::runtime_error("x"); }), E_UNEXPECTED);
    EXPECT_EQ(ComBarrier([]() -> HRESULT { throw 42; }), E_UNEXPECTED);
}

// Each setter first releases what the holder held (an object here, so its count shows it).
TEST(ScopedVariant, HoldsStringsWithTheirLengthAndNumbersAndReleasesWhatItHeldBefore)
{
    const auto held = Adopt(new HostContext());
    ScopedVariant value;
    for (int setter = 0; setter < 2; ++setter) {
        held->AddRef();
        V_VT(value.get()) = VT_UNKNOWN;
        V_UNKNOWN(value.get()) = held.Get();
        if (setter == 0) {
            value.SetUInt64(1615125909000ULL);
        } else {
            value.SetString(std::wstring_view(L"a\0b", 3));
        }
        EXPECT_EQ(held->References(), 1u) << "setter " << setter;
    }
    ASSERT_EQ(V_VT(value.get()), VT_BSTR);
    EXPECT_EQ(::SysStringLen(V_BSTR(value.get())), 3u);
    value.SetUInt64(1615125909000ULL);
    ASSERT_EQ(V_VT(value.get()), VT_UI8);
    EXPECT_EQ(V_UI8(value.get()), 1615125909000ULL);
}

}  // namespace
}  // namespace zeph
