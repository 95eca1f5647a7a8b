// zeph-host.exe, the real program, fed any configuration, scenario or event
// file: malformed, deeply nested, with huge text nodes, in other encodings.
// Whatever the file, zeph-host ends within its deadlines with an exit code of
// its documented table (exit_codes.h); a crash or a heap fault of it reaches
// Wine's standard error, which the runner watches.
#include "corpus.h"
#include "exit_codes.h"
#include "host_process.h"
#include "scenario.h"
#include "scratch.h"
#include "target.h"

#include <gtest/gtest.h>

#include <variant>

namespace zeph::fuzz {

namespace {

constexpr uint64_t kJson = 0x1;       // options: values as JSON lines
constexpr uint64_t kLogAll = 0x2;     // options: the provider's info lines too
constexpr DWORD kMostPauseMs = 3000;  // a scenario may pause this long in all
constexpr size_t kMostSteps = 2000;
constexpr char kDemoLogFolder[] = "C:\\Program Files\\Quillon";

std::string Replaced(std::string text, const std::string& what, const std::string& with)
{
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
        text.replace(at, what.size(), with);
    }
    return text;
}

std::string Narrow(const std::wstring& text)
{
    const int size =
        ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), bytes.data(), size, nullptr, nullptr);
    return bytes;
}

std::wstring Widen(const std::string& bytes)
{
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    std::wstring text(static_cast<size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(), size);
    return text;
}

// The file in another encoding, its declaration saying so or not.
std::string Reencoded(const std::string& bytes, Mutator& mutator)
{
    const char* kDeclared[] = {"utf-16", "utf-8", "iso-8859-1", "windows-1252", "shift_jis", "utf-32", "bogus"};
    std::string utf8 =
        Replaced(bytes, "encoding=\"utf-8\"", "encoding=\"" + std::string(kDeclared[mutator.Below(7)]) + "\"");
    const std::wstring text = Widen(utf8);
    switch (mutator.Below(5)) {
    case 0:
        return "\xFF\xFE" + TextBytes(text);
    case 1: {  // big-endian, with its mark
        std::string swapped = TextBytes(L"\xFEFF" + text);
        for (size_t i = 0; i + 1 < swapped.size(); i += 2) {
            std::swap(swapped[i], swapped[i + 1]);
        }
        return swapped;
    }
    case 2:
        return TextBytes(text);  // no mark
    case 3:
        return "\xEF\xBB\xBF" + utf8;
    default: {  // one byte per character, as the ANSI code page would hold it
        std::string narrow;
        for (wchar_t c : text) {
            narrow += static_cast<char>(c & 0xFF);
        }
        return narrow;
    }
    }
}

// The lines of a file, as pieces to splice.
void AddLines(const std::string& file, std::vector<std::string>& pieces)
{
    for (size_t start = 0, end; start < file.size(); start = end + 1) {
        end = std::min(file.find('\n', start), file.size());
        pieces.push_back(file.substr(start, end - start + 1));
    }
}

// One of zeph-host's input files, fuzzed; the other arguments fixed.
class HostFile : public Target {
public:
    Dictionary Pieces() override
    {
        Dictionary pieces;
        pieces.bytes = {"<",
                        ">",
                        "</",
                        "/>",
                        "&amp;",
                        "&#0;",
                        "&#xD800;",
                        "&#x10FFFF;",
                        "&undefined;",
                        "<![CDATA[",
                        "]]>",
                        "<!--",
                        "-->",
                        "<?xml version=\"1.0\" encoding=\"utf-16\"?>",
                        "<!DOCTYPE d [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">]>",
                        "&b;",
                        "xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\"",
                        "<metric name=\"eventlog|eventlog_quillon\">",
                        "<query/>",
                        "<pause ms=\"1\"/>",
                        "id=\"70000\"",
                        "time=\"2024-05-14T08:02:11.4189999999Z\"",
                        "\r\n",
                        "\xEF\xBB\xBF"};
        const Corpus& corpus = DemoCorpus();
        for (const std::string* file : {&corpus.configFile, &corpus.scenarioFile, &corpus.eventsFile}) {
            AddLines(*file, pieces.bytes);
        }
        pieces.byteSizes = {0, 1, 2, 65536, 1u << 20};
        return pieces;
    }

    void Steer(Input& input, Mutator& mutator) override
    {
        std::string file = input.Bytes("file");
        const size_t at = static_cast<size_t>(mutator.Below(file.size() + 1));
        if (mutator.OneIn(6)) {
            file = Reencoded(file, mutator);
        } else if (mutator.OneIn(8)) {  // deep
            const size_t depth = size_t{10} << (3 * mutator.Below(5));
            std::string nested;
            for (size_t i = 0; i < depth; ++i) {
                nested += "<a>";
            }
            for (size_t i = 0; i < depth; ++i) {
                nested += "</a>";
            }
            file.insert(at, nested);
        } else if (mutator.OneIn(8)) {  // a huge text node
            file.insert(at, std::string(size_t{1000} << mutator.Below(12), "xyz<>&\r\n"[mutator.Below(8)]));
        }
        if (mutator.OneIn(4)) {
            input.SetNumber("options", mutator.Below(4));
        }
        input.SetBytes("file", file.substr(0, Mutator::kMaxFieldBytes));
    }

    void Run(const Input& input) override
    {
        const std::wstring file = folder_.WriteFile(L"input.xml", input.Bytes("file"));
        if (!Safe(file)) {
            ++skipped_;
            return;
        }
        std::vector<std::wstring> arguments = Arguments(file);
        arguments.insert(arguments.end(), {L"--once", L"--dll", test::BinFolder() + L"zeph_eventlog.dll"});
        const uint64_t options = input.Number("options", kLogAll);
        if ((options & kJson) != 0) {
            arguments.push_back(L"--json");
        }
        if ((options & kLogAll) != 0) {
            arguments.insert(arguments.end(), {L"--log", L"all"});
        }
        const test::HostRun run = test::RunZephHost(arguments);
        EXPECT_LE(run.exitCode, static_cast<DWORD>(host::ExitCode::ScenarioFailed))
            << "zeph-host ended with an exit code outside its table; standard error:\n"
            << testing::PrintToString(run.err.substr(0, 2000));
        EXPECT_EQ(run.err.find(L"did not finish"), std::wstring::npos) << "a deadline was missed";
    }

    DWORD DeadlineMs() const override { return 150000; }  // zeph-host's own run is bounded at two minutes
    uint64_t Skipped() const override { return skipped_; }

protected:
    virtual std::vector<std::wstring> Arguments(const std::wstring& file) = 0;
    virtual bool Safe(const std::wstring& /*file*/) { return true; }

    Input FileSeed(const std::string& bytes, uint64_t options = kLogAll) const
    {
        Input input;
        input.SetBytes("file", bytes).SetNumber("options", options);
        return input;
    }

    TempFolder folder_{L"zeph fuzz "};
    const std::wstring config_ = folder_.WriteFile(L"zeph-host.xml", DemoCorpus().configFile);

private:
    uint64_t skipped_ = 0;
};

class HostConfig final : public HostFile {
public:
    const char* Name() const override { return "HostConfig"; }
    std::vector<Input> Seeds() override
    {
        return {FileSeed(DemoCorpus().configFile), FileSeed(test::kCrashConfig, kJson),
                FileSeed("<zeph-host><metric name=\"x\"><channel>No Such Channel</channel><query>*[</query></metric>"
                         "<metric name=\"eventlog|eventlog_quillon\"/></zeph-host>")};
    }

private:
    std::vector<std::wstring> Arguments(const std::wstring& file) override { return {L"--config", file}; }
};

class HostEvents final : public HostFile {
public:
    const char* Name() const override { return "HostEvents"; }
    std::vector<Input> Seeds() override
    {
        return {FileSeed(DemoCorpus().eventsFile), FileSeed(DemoCorpus().eventsFile, kJson | kLogAll)};
    }

private:
    std::vector<std::wstring> Arguments(const std::wstring& file) override
    {
        return {L"--config", config_, L"--replay", file};
    }
};

// Scenarios write files and pause: only those that write inside the
// target's own folder and pause briefly are run.
class HostScenario final : public HostFile {
public:
    HostScenario() { ::CreateDirectoryW((folder_.Path() + L"\\Logs").c_str(), nullptr); }

    const char* Name() const override { return "HostScenario"; }
    std::vector<Input> Seeds() override
    {
        folder_.WriteFile(L"application-errors.xml", DemoCorpus().eventsFile);
        const std::string& events = DemoCorpus().eventsFile;
        const size_t first = events.find("<Event ");
        const std::string event = events.substr(first, events.find("</Event>", first) + 8 - first);
        const std::string scenario = Replaced(DemoCorpus().scenarioFile, kDemoLogFolder, Narrow(folder_.Path()));
        const std::string more = event + "<replay file=\"application-errors.xml\"/><query/></scenario>";
        return {FileSeed(scenario), FileSeed(Replaced(scenario, "</scenario>", more), kJson)};
    }

private:
    std::vector<std::wstring> Arguments(const std::wstring& file) override
    {
        return {L"--config", config_, L"--scenario", file};
    }

    bool Inside(const std::wstring& path) const
    {
        wchar_t full[MAX_PATH];
        const DWORD length = ::GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
        const std::wstring folder = folder_.Path() + L"\\";
        return !path.starts_with(L"\\\\") && length > folder.size() && length < MAX_PATH &&
               ::CompareStringOrdinal(full, static_cast<int>(folder.size()), folder.c_str(),
                                      static_cast<int>(folder.size()), TRUE) == CSTR_EQUAL;
    }

    bool Safe(const std::wstring& file) override
    {
        host::Scenario scenario;
        try {
            scenario = host::LoadScenario(file);  // what zeph-host reads first, with the same code
        } catch (const host::HostError&) {
            return true;  // refused before anything is played
        }
        uint64_t paused = 0;
        for (const host::ScenarioStep& step : scenario.steps) {
            if (const auto* append = std::get_if<host::AppendStep>(&step)) {
                wchar_t expanded[MAX_PATH];
                const DWORD length = ::ExpandEnvironmentStringsW(append->file.c_str(), expanded, MAX_PATH);
                if (length == 0 || length > MAX_PATH || !Inside(expanded)) {
                    return false;
                }
            } else if (const auto* replay = std::get_if<host::ReplayStep>(&step)) {
                if (!Inside(replay->file)) {
                    return false;
                }
            } else if (const auto* pause = std::get_if<host::PauseStep>(&step)) {
                paused += std::min(pause->milliseconds, kMostPauseMs + 1);
            }
        }
        return paused <= kMostPauseMs && scenario.steps.size() <= kMostSteps;
    }
};

}  // namespace

TEST(Fuzz, HostConfig)
{
    HostConfig target;
    Fuzz(target);
}

TEST(Fuzz, HostScenario)
{
    HostScenario target;
    Fuzz(target);
}

TEST(Fuzz, HostEvents)
{
    HostEvents target;
    Fuzz(target);
}

}  // namespace zeph::fuzz
