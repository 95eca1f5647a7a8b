// The service log: CollectLog and FindLoginResponse on a 512 KiB segment that
// holds the manager's answer and 2,000 mount lines, in a real UTF-16LE file in
// a temporary folder, with HKEY_LOCAL_MACHINE redirected to a scratch key that
// names the service's executable there. The floor reads the same bytes with
// ReadFile into a buffer it already has and scans them once for the mount
// token.

#include "benchmarks.h"
#include "layering/quillon_log_collector.h"
#include "scenario.h"
#include "support/host_logger.h"
#include "support/registry_redirection.h"
#include "support/temp_folder.h"
#include "win/code_unit_search.h"

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace zeph::bench {

namespace {

constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\services\\drovesvc";
constexpr size_t kSegmentBytes = CQuillonLogCollector::kMaxReadBytes;  // the most one collection reads
constexpr size_t kMountLines = 2000;
constexpr std::wstring_view kMountToken = L"MOUNTED-READ;";

// The layering service installed in a temporary folder, known to a redirected
// HKEY_LOCAL_MACHINE for the object's life.
class ServiceInstall {
public:
    ServiceInstall()
    {
        std::filesystem::create_directory(folder_.Path() + L"\\Logs");
        registry_.SetString(kServiceKey, L"ImagePath", L"\"" + folder_.Path() + L"\\drovesvc.exe\"", REG_EXPAND_SZ);
    }

    std::wstring LogPath() const { return folder_.Path() + L"\\Logs\\drovesvc.log"; }

    void WriteLog(const std::wstring& text, bool append)
    {
        const unique_file file(::CreateFileW(LogPath().c_str(), append ? FILE_APPEND_DATA : GENERIC_WRITE,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                             append ? OPEN_ALWAYS : CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD written = 0;
        const DWORD bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        if (!file || !::WriteFile(file.get(), text.data(), bytes, &written, nullptr) || written != bytes) {
            Fail("cannot write the service log");
        }
    }

private:
    TempFolder folder_{L"zeph bench "};
    RedirectedKey registry_{HKEY_LOCAL_MACHINE};
};

// What the service wrote before the log-on: an earlier mount that must not count.
std::wstring LogHead()
{
    std::wstring text;
    for (int i = 0; text.size() < 2048; ++i) {
        text += L"2026-11-21 07:59:" + std::to_wstring(10 + i % 50) +
                L".000 [INFO] Heartbeat, 0 volumes attached, manager reachable\r\n";
    }
    text += L"2026-11-21 07:59:59.000 [INFO] Volume 0000 MOUNTED-READ;D:\\Tesseras\\stale.vhdx;{stale}\r\n";
    return text;
}

// Exactly kSegmentBytes: the manager's answer, then the mount lines with a
// status line after every tenth.
std::wstring LogSegment()
{
    const size_t characters = kSegmentBytes / sizeof(wchar_t);
    std::vector<std::wstring> mounts;
    size_t mountCharacters = 0;
    for (size_t i = 1; i <= kMountLines; ++i) {
        wchar_t line[256];
        std::swprintf(line, std::size(line),
                      L"2026-11-21 08:00:%02zu.%03zu [INFO] Volume %04zu MOUNTED-READ;D:\\Tesseras\\layer%04zu.vhdx;"
                      L"{0A1B2C3D-0000-4000-8000-%012zu}\r\n",
                      i / 1000 + 1, i % 1000, i, i, i);
        mounts.emplace_back(line);
        mountCharacters += mounts.back().size();
    }
    const std::wstring answer =
        L"2026-11-21 08:00:00.500 [INFO] Manager status 200 response for LOGIN of user bench, 2000 Tesseras\r\n";
    const size_t statusLines = kMountLines / 10;
    const size_t statusBudget = characters - answer.size() - mountCharacters;
    const size_t statusLength = statusBudget / statusLines;

    auto statusLine = [](size_t length) {
        std::wstring line = L"2026-11-21 08:00:30.000 [DEBUG] Attach queue ";
        line.resize(length - 2, L'.');
        return line + L"\r\n";
    };
    std::wstring text = answer;
    text.reserve(characters);
    for (size_t i = 0; i < kMountLines; ++i) {
        text += mounts[i];
        if (i % 10 == 9) {
            const bool last = i + 1 == kMountLines;
            text += statusLine(last ? characters - text.size() : statusLength);
        }
    }
    if (text.size() != characters) {
        Fail("the log segment came out at the wrong size");
    }
    return text;
}

// The floor: the same bytes read once, into a buffer that is already there,
// and scanned once for the mount token with the fastest search at hand.
size_t ReadAndScan(const std::wstring& path, DWORD offset, std::vector<wchar_t>& buffer)
{
    const unique_file file(::CreateFileW(path.c_str(), GENERIC_READ,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        Fail("cannot open the service log");
    }
    LARGE_INTEGER position{};
    position.QuadPart = offset;
    DWORD read = 0;
    if (!::SetFilePointerEx(file.get(), position, nullptr, FILE_BEGIN) ||
        !::ReadFile(file.get(), buffer.data(), static_cast<DWORD>(kSegmentBytes), &read, nullptr) ||
        read != kSegmentBytes) {
        Fail("cannot read the service log");
    }

    const std::wstring_view text(buffer.data(), kSegmentBytes / sizeof(wchar_t));
    size_t count = 0;
    for (size_t found = FindText(text, kMountToken); found != std::wstring_view::npos;
         found = FindText(text, kMountToken, found + kMountToken.size())) {
        ++count;
    }
    return count;
}

// collectFirst: CollectLog, then FindLoginResponse (which collects again);
// otherwise FindLoginResponse alone, as the metric calls it at the end of a
// log-on: one collection, the search for the manager's answer, the Tesseras.
Figure MeasureCollector(ULONG levels, bool collectFirst, const char* name, const Options& options)
{
    // Short rounds, so many of them: one of a fraction of a millisecond is easily
    // caught by another process on this machine.
    const Budget budget = options.quick ? Budget{3, 3, 0} : Budget{31, 401, 10};
    ServiceInstall service;
    const std::wstring head = LogHead();
    const std::wstring segment = LogSegment();
    const DWORD headBytes = static_cast<DWORD>(head.size() * sizeof(wchar_t));

    auto* logger = new HostLogger(levels, false);
    CQuillonLogCollector collector(logger);
    logger->Release();

    // A log-on: the log as it was, the cycle prepared, then what the service
    // wrote since. Both sides read a segment just written, as it would be.
    auto product = [&] {
        service.WriteLog(head, false);
        if (!collector.PrepareCollectLog() || collector.BeginSize() != headBytes) {
            Fail("PrepareCollectLog did not find the service log");
        }
        service.WriteLog(segment, true);

        const double start = NowNs();
        const bool collected = !collectFirst || collector.CollectLog();
        const bool found = collector.FindLoginResponse();
        const double elapsed = NowNs() - start;
        if (!collected || !found || collector.CollectedText().size() != segment.size() ||
            collector.GetTesseras().size() != kMountLines) {
            Fail("the collector did not find the 2,000 Tesseras");
        }
        return elapsed / 1e6;
    };
    std::vector<wchar_t> buffer(kSegmentBytes / sizeof(wchar_t));
    auto floor = [&] {
        service.WriteLog(head, false);
        service.WriteLog(segment, true);
        const double start = NowNs();
        const size_t count = ReadAndScan(service.LogPath(), headBytes, buffer);
        const double elapsed = NowNs() - start;
        if (count != kMountLines) {
            Fail("the floor's scan did not find the 2,000 mount lines");
        }
        return elapsed / 1e6;
    };
    const Paired paired = Interleave(budget, product, floor);
    Figure figure = Compare("service log", name, "ms", paired.product, "ReadFile + one scan", paired.floor);
    figure.note = collectFirst ? "512 KiB, 2000 mount lines; two reads of it" : "512 KiB, 2000 mount lines";
    return figure;
}

}  // namespace

std::vector<Figure> MeasureServiceLog(const Options& options)
{
    std::vector<Figure> figures;
    figures.push_back(MeasureCollector(kProductionLogLevels, false, "FindLoginResponse (collect+search)", options));
    SetGoal(figures.back(), 2.0, false, "<= 2x");
    // For the record: the two calls one after the other read the segment twice
    // against the floor's once, and two info lines per Tessera are the host's choice.
    figures.push_back(MeasureCollector(kProductionLogLevels, true, "CollectLog, then FindLoginResponse", options));
    figures.push_back(MeasureCollector(kAllLogLevels, false, "FindLoginResponse, info log on", options));
    return figures;
}

}  // namespace zeph::bench
