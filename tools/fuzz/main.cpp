// zeph-fuzz: a seeded, mutation-based fuzzer of every input the provider and
// zeph-host take from outside. See README.md beside this file; tools/fuzz/fuzz.sh
// runs it the way `make test` and `make fuzz` do.
//
//   zeph-fuzz.exe [--seconds N] [--seed N] [--out FOLDER] [--corpus FOLDER]
//                 [--wine-stderr FILE] [--replay FILE] [GoogleTest flags]
#include "support/host_object.h"
#include "target.h"

#include <gtest/gtest.h>

#include <objbase.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using zeph::fuzz::Settings;

std::wstring Wide(const char* text)
{
    const int size = ::MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    std::wstring wide(static_cast<size_t>(size > 0 ? size - 1 : 0), L'\0');
    ::MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), size);
    return wide;
}

bool ParseArguments(int argc, char** argv, Settings& settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (i + 1 >= argc) {
            std::fprintf(stderr, "zeph-fuzz: %s: unknown option or missing value\n", name.c_str());
            return false;
        }
        const char* value = argv[++i];
        if (name == "--seconds") {
            settings.seconds = std::strtod(value, nullptr);
        } else if (name == "--seed") {
            settings.seed = std::strtoull(value, nullptr, 10);
        } else if (name == "--out") {
            settings.outFolder = Wide(value);
        } else if (name == "--corpus") {
            settings.corpusFolder = Wide(value);
        } else if (name == "--wine-stderr") {
            settings.wineStderrFile = Wide(value);
        } else if (name == "--replay") {
            settings.replayFile = Wide(value);
        } else {
            std::fprintf(stderr, "zeph-fuzz: unknown option %s\n", name.c_str());
            return false;
        }
    }
    return true;
}

void PrintFigures(const Settings& settings)
{
    if (settings.replayFile.empty()) {
        std::printf("zeph-fuzz: seed %llu, %.0f s\n", static_cast<unsigned long long>(settings.seed), settings.seconds);
    } else {
        std::printf("zeph-fuzz: replayed %ls\n", settings.replayFile.c_str());
    }
    std::printf("%-16s %10s %9s %10s %8s  %s\n", "target", "inputs", "seconds", "inputs/s", "skipped", "result");
    uint64_t inputs = 0;
    double seconds = 0;
    for (const auto& figures : zeph::fuzz::Figures()) {
        std::printf("%-16s %10llu %9.1f %10.1f %8llu  %s\n", figures.name.c_str(),
                    static_cast<unsigned long long>(figures.inputs), figures.seconds,
                    figures.seconds > 0 ? static_cast<double>(figures.inputs) / figures.seconds : 0.0,
                    static_cast<unsigned long long>(figures.skipped), figures.failed ? "FAILED" : "ok");
        inputs += figures.inputs;
        seconds += figures.seconds;
    }
    std::printf("%-16s %10llu %9.1f %10.1f\n", "all", static_cast<unsigned long long>(inputs), seconds,
                seconds > 0 ? static_cast<double>(inputs) / seconds : 0.0);
}

}  // namespace

int main(int argc, char** argv)
{
    // The multithreaded apartment, as the host's threads; a call of the provider
    // that breaks the host interfaces' contract fails the input, as it fails a test.
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    zeph::ContractBreachHandlerSlot() = [](const std::wstring& what) { ADD_FAILURE() << testing::PrintToString(what); };
    testing::InitGoogleTest(&argc, argv);
    Settings& settings = zeph::fuzz::CurrentSettings();
    settings.corpusFolder = ZEPH_FUZZ_CORPUS;
    settings.outFolder = L"fuzz-failures";
    if (!ParseArguments(argc, argv, settings)) {
        return 2;
    }
    if (!settings.replayFile.empty()) {
        const auto target = zeph::fuzz::TargetOfInputFile(settings.replayFile);
        if (!target) {
            std::fprintf(stderr, "zeph-fuzz: %ls is no saved input\n", settings.replayFile.c_str());
            return 2;
        }
        GTEST_FLAG_SET(filter, "Fuzz." + *target);
    }
    zeph::fuzz::StartRun();
    const int result = RUN_ALL_TESTS();
    PrintFigures(settings);
    ::CoUninitialize();
    return result;
}
