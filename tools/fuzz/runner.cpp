#include "target.h"

#include "corpus.h"
#include "win/unique_resource.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <thread>

namespace zeph::fuzz {

namespace {

using Clock = std::chrono::steady_clock;

std::vector<TargetFigures> g_figures;
Clock::time_point g_runDeadline;

// The input that runs now and where it goes if it fails: written by the loop
// before each run, read by the crash filter and the watchdog, which end the process.
std::string g_runningInput;
std::wstring g_runningPath;

void SaveRunningInput(const char* why)
{
    if (g_runningPath.empty()) {
        return;
    }
    const unique_file file(
        ::CreateFileW(g_runningPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (file) {
        ::WriteFile(file.get(), g_runningInput.data(), static_cast<DWORD>(g_runningInput.size()), &written, nullptr);
    }
    std::fprintf(stderr, "zeph-fuzz: the input %s; replay it with: tools/fuzz/fuzz.sh <build folder> --replay '%ls'\n",
                 why, g_runningPath.c_str());
    std::fflush(stderr);
}

void SaveOnAbort(int)
{
    SaveRunningInput("aborted the process");
}

LONG WINAPI SaveOnCrash(EXCEPTION_POINTERS* exception)
{
    char why[64];
    std::snprintf(why, sizeof why, "crashed the process (exception 0x%08lx)",
                  exception != nullptr ? exception->ExceptionRecord->ExceptionCode : 0ul);
    SaveRunningInput(why);
    return EXCEPTION_CONTINUE_SEARCH;  // Wine's own report follows
}

// Ends the process when an input runs past its deadline: a hang cannot be
// recovered from in-process.
class Watchdog {
public:
    Watchdog() : thread_([this] { Watch(); }) {}
    ~Watchdog()
    {
        {
            const std::lock_guard lock(mutex_);
            stop_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    void Arm(DWORD milliseconds)
    {
        {
            const std::lock_guard lock(mutex_);
            deadline_ = Clock::now() + std::chrono::milliseconds(milliseconds);
        }
        changed_.notify_all();
    }
    void Disarm()
    {
        const std::lock_guard lock(mutex_);
        deadline_.reset();
    }

private:
    void Watch()
    {
        std::unique_lock lock(mutex_);
        while (!stop_) {
            if (!deadline_) {
                changed_.wait(lock);
            } else if (changed_.wait_until(lock, *deadline_) == std::cv_status::timeout && deadline_ &&
                       Clock::now() >= *deadline_) {
                SaveRunningInput("did not finish within its deadline");
                ::TerminateProcess(::GetCurrentProcess(), 3);
            }
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Clock::time_point> deadline_;
    bool stop_ = false;
    std::thread thread_;
};

// Wine writes heap faults ("err:heap", "warn:heap") and crash reports of this
// process and of the programs it starts to its standard error, which the
// runner script sends to a file; each input's share of it is looked at.
class WineReports {
public:
    explicit WineReports(const std::wstring& path)
    {
        if (!path.empty()) {
            file_.reset(::CreateFileW(path.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
            EXPECT_TRUE(file_) << "cannot read Wine's standard error from " << testing::PrintToString(path);
            if (file_) {
                ::SetFilePointerEx(file_.get(), LARGE_INTEGER{}, nullptr, FILE_END);
            }
        }
    }
    // The report lines written since the last call.
    std::string Next()
    {
        std::string reports;
        char buffer[65536];
        DWORD read = 0;
        while (file_ && ::ReadFile(file_.get(), buffer, sizeof buffer, &read, nullptr) && read > 0) {
            pending_.append(buffer, read);
        }
        for (size_t end; (end = pending_.find('\n')) != std::string::npos; pending_.erase(0, end + 1)) {
            const std::string line = pending_.substr(0, end);
            for (const char* report : {"err:heap", "warn:heap", "Unhandled exception", "Unhandled page fault"}) {
                if (line.find(report) != std::string::npos) {
                    reports += line + "\n";
                    break;
                }
            }
        }
        return reports;
    }

private:
    unique_file file_;
    std::string pending_;
};

uint64_t NameHash(const char* name)
{
    uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (; *name != '\0'; ++name) {
        hash = (hash ^ static_cast<unsigned char>(*name)) * 1099511628211ull;
    }
    return hash;
}

std::optional<Input> ReadInputFile(const std::wstring& path, std::string& target)
{
    auto parsed = Input::Parse(ReadFileBytes(path));
    if (!parsed) {
        return std::nullopt;
    }
    target = parsed->first;
    return parsed->second;
}

// Runs one input; false (and the input saved) when something that must hold did not.
bool RunOne(Target& target, const Input& input, const std::wstring& path, Watchdog& watchdog, WineReports& reports)
{
    g_runningInput = input.Serialize(target.Name());
    g_runningPath = path;
    watchdog.Arm(target.DeadlineMs());
    target.Run(input);
    watchdog.Disarm();
    if (const std::string lines = reports.Next(); !lines.empty()) {
        ADD_FAILURE() << "Wine reported:\n" << lines;
    }
    if (!testing::Test::HasFailure()) {
        g_runningPath.clear();
        return true;
    }
    SaveRunningInput("failed");
    g_runningPath.clear();
    return false;
}

}  // namespace

Settings& CurrentSettings()
{
    static Settings settings;
    return settings;
}

const std::vector<TargetFigures>& Figures()
{
    return g_figures;
}

void StartRun()
{
    g_runDeadline = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(CurrentSettings().seconds * 1000));
    ::SetUnhandledExceptionFilter(SaveOnCrash);
    std::signal(SIGABRT, SaveOnAbort);
    ::CreateDirectoryW(CurrentSettings().outFolder.c_str(), nullptr);
}

std::optional<std::string> TargetOfInputFile(const std::wstring& path)
{
    std::string target;
    if (!ReadInputFile(path, target)) {
        return std::nullopt;
    }
    return target;
}

void Fuzz(Target& target)
{
    const Settings& settings = CurrentSettings();
    const auto start = Clock::now();
    TargetFigures figures{target.Name()};
    Watchdog watchdog;
    WineReports reports(settings.wineStderrFile);
    const std::wstring prefix = settings.outFolder + L"\\" + std::wstring(figures.name.begin(), figures.name.end()) +
                                L"-" + std::to_wstring(settings.seed) + L"-";

    if (!settings.replayFile.empty()) {
        std::string name;
        const std::optional<Input> input = ReadInputFile(settings.replayFile, name);
        ASSERT_TRUE(input && name == figures.name) << "not an input of this target";
        figures.failed = !RunOne(target, *input, settings.replayFile, watchdog, reports);
        figures.inputs = 1;
    } else {
        // What is left of the run, shared equally by the targets still to run.
        const size_t left = std::max<size_t>(
            1, static_cast<size_t>(testing::UnitTest::GetInstance()->test_to_run_count()) - g_figures.size());
        const auto deadline = start + (g_runDeadline - start) / static_cast<int64_t>(left);
        const std::vector<Input> seeds = target.Seeds();
        ASSERT_FALSE(seeds.empty());
        Mutator mutator(settings.seed ^ NameHash(target.Name()), target.Pieces());
        for (uint64_t n = 0; n == 0 || Clock::now() < deadline; ++n) {
            Input input = n < seeds.size() ? seeds[n] : mutator.Mutate(seeds[mutator.Below(seeds.size())]);
            if (n >= seeds.size()) {
                target.Steer(input, mutator);
            }
            if (!RunOne(target, input, prefix + std::to_wstring(n) + L".input", watchdog, reports)) {
                figures.failed = true;
                break;
            }
            ++figures.inputs;
        }
    }
    figures.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    figures.skipped = target.Skipped();
    g_figures.push_back(figures);
}

}  // namespace zeph::fuzz
