// zeph-bench: measures the provider's event path, report path, detail text,
// service log and memory against the simulated event log, each beside its
// floor, and prints a table (and, with --json PATH, writes the figures).
// Every section runs in a fresh process of this program.
//
//   zeph-bench [--json PATH] [--quick] [--only event,report,text,log,memory]

#include "benchmarks.h"
#include "child_process.h"
#include "report.h"

#include <objbase.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace {

int Usage()
{
    std::fprintf(stderr, "usage: zeph-bench [--json PATH] [--quick] [--only event,report,text,log,memory]\n");
    return 2;
}

struct Section {
    const char* name;
    const char* title;
    std::vector<zeph::bench::Figure> (*measure)(const zeph::bench::Options&);
};

const Section kSections[] = {
    {"event", "event path", zeph::bench::MeasureEventPath},  {"report", "report path", zeph::bench::MeasureReportPath},
    {"text", "detail text", zeph::bench::MeasureDetailText}, {"log", "service log", zeph::bench::MeasureServiceLog},
    {"memory", "memory", zeph::bench::MeasureMemory},
};

const Section* FindSection(const std::wstring& name)
{
    for (const Section& section : kSections) {
        const std::string own = section.name;
        if (name == std::wstring(own.begin(), own.end())) {
            return &section;
        }
    }
    return nullptr;
}

bool Selected(const std::string& only, const char* name)
{
    if (only.empty()) {
        return true;
    }
    const std::string list = "," + only + ",";
    return list.find("," + std::string(name) + ",") != std::string::npos;
}

// "section figure: ratio 1.62x, goal ..." for every figure whose median misses its goal.
std::vector<std::string> MissedGoals(const std::vector<zeph::bench::Figure>& figures)
{
    std::vector<std::string> missed;
    for (const zeph::bench::Figure& figure : figures) {
        if (!figure.goal.empty() && !figure.met) {
            char judged[64];
            if (figure.valueGoal) {
                std::snprintf(judged, sizeof judged, "%.2f %s", figure.value.median, figure.unit.c_str());
            } else {
                std::snprintf(judged, sizeof judged, "ratio %.2fx", figure.ratio);
            }
            missed.push_back(figure.section + " " + figure.name + ": " + judged + ", goal " + figure.goal +
                             (figure.decided ? "" : " (unsure: its interval holds the limit)"));
        }
    }
    return missed;
}

// Runs one section in a fresh process of this program and appends its figures.
bool RunSection(const Section& section, const zeph::bench::Options& options, std::vector<zeph::bench::Figure>& figures)
{
    std::fprintf(stderr, "zeph-bench: %s...", section.title);
    std::fflush(stderr);
    const double start = zeph::bench::NowNs();
    const std::wstring path = zeph::bench::NewTemporaryFile();
    const std::string name = section.name;
    std::wstring arguments = L"--section " + std::wstring(name.begin(), name.end()) + L" --figures \"" + path + L"\"";
    if (options.quick) {
        arguments += L" --quick";
    }
    const bool ran = zeph::bench::RunSelf(arguments) && zeph::bench::ReadFigures(path, figures);
    ::DeleteFileW(path.c_str());
    if (!ran) {
        std::fprintf(stderr, "\nzeph-bench: the %s section failed\n", section.title);
    } else {
        std::fprintf(stderr, " %.0f s\n", (zeph::bench::NowNs() - start) / 1e9);
    }
    return ran;
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    // Every thread of the host runs in the multithreaded apartment.
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    struct Apartment {
        ~Apartment() { ::CoUninitialize(); }
    } apartment;

    zeph::bench::Options options;
    std::wstring jsonPath;
    std::string only;
    std::wstring section;      // a child: the one section to run
    std::wstring figuresPath;  // a child: where its figures go
    for (int i = 1; i < argc; ++i) {
        if (std::wcscmp(argv[i], L"--quick") == 0) {
            options.quick = true;
        }
    }
    for (int i = 1; i < argc; ++i) {
        const std::wstring arg = argv[i];
        if (arg == L"--memory-child" && i + 2 < argc) {
            return zeph::bench::RunMemoryChild(argv[i + 1], argv[i + 2], options.quick);
        }
        if (arg == L"--quick") {
            continue;
        }
        if (arg == L"--json" && i + 1 < argc) {
            jsonPath = argv[++i];
            continue;
        }
        if (arg == L"--only" && i + 1 < argc) {
            const std::wstring names = argv[++i];  // plain ASCII section names
            only.assign(names.begin(), names.end());
            continue;
        }
        if (arg == L"--section" && i + 1 < argc) {
            section = argv[++i];
            continue;
        }
        if (arg == L"--figures" && i + 1 < argc) {
            figuresPath = argv[++i];
            continue;
        }
        return Usage();
    }

    if (!section.empty()) {
        const Section* chosen = FindSection(section);
        if (chosen == nullptr || figuresPath.empty()) {
            return Usage();
        }
        return zeph::bench::WriteFigures(figuresPath, chosen->measure(options)) ? 0 : 1;
    }

    const double start = zeph::bench::NowNs();
    std::vector<zeph::bench::Figure> figures;
    for (const Section& candidate : kSections) {
        if (!Selected(only, candidate.name)) {
            continue;
        }
        if (!RunSection(candidate, options, figures)) {
            return 1;
        }
    }
    const double seconds = (zeph::bench::NowNs() - start) / 1e9;

    zeph::bench::PrintTable(figures);
    std::printf("(%.0f s%s)\n", seconds, options.quick ? ", quick run: too short to trust" : "");
    if (!jsonPath.empty()) {
        if (!zeph::bench::WriteJson(jsonPath, figures, options.quick, seconds)) {
            std::fprintf(stderr, "zeph-bench: cannot write %ls\n", jsonPath.c_str());
            return 1;
        }
        std::printf("figures written to %ls\n", jsonPath.c_str());
    }
    // A quick run is too short to hold anyone to a goal.
    const std::vector<std::string> missed = options.quick ? std::vector<std::string>() : MissedGoals(figures);
    for (const std::string& figure : missed) {
        std::fprintf(stderr, "zeph-bench: goal missed: %s\n", figure.c_str());
    }
    return missed.empty() ? 0 : 1;
}
