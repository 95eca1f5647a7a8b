#include "scenario_player.h"

#include "console.h"
#include "exit_codes.h"
#include "support/text.h"
#include "win/file_time.h"
#include "win/unique_resource.h"

#include <algorithm>
#include <cstdio>

namespace zeph::host {

namespace {

void Announce(size_t number, const std::wstring& what)
{
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    wchar_t stamp[48] = {};
    std::swprintf(stamp, 48, L"%02u:%02u:%02u.%03u [scenario] step %u: ", now.wHour, now.wMinute, now.wSecond,
                  now.wMilliseconds, static_cast<unsigned>(number));
    WriteErr(stamp + what + L"\n");
}

[[noreturn]] void StepFailed(size_t number, const std::wstring& what)
{
    throw HostError(ExitCode::ScenarioFailed, L"scenario step " + std::to_wstring(number) + L": " + what);
}

std::wstring FirstLine(const std::wstring& text)
{
    const size_t end = text.find(L'\r');
    return end == std::wstring::npos ? text : text.substr(0, end) + L" ...";
}

std::wstring ExpandEnvironment(const std::wstring& text)
{
    const DWORD size = ::ExpandEnvironmentStringsW(text.c_str(), nullptr, 0);
    if (size == 0) {
        return text;
    }
    std::wstring expanded(size, L'\0');
    const DWORD length = ::ExpandEnvironmentStringsW(text.c_str(), expanded.data(), size);
    expanded.resize(length > 0 && length <= size ? length - 1 : 0);
    return expanded;
}

ULONGLONG Now()
{
    FILETIME now = {};
    ::GetSystemTimePreciseAsFileTime(&now);
    return FileTimeCount(now);
}

}  // namespace

bool ScenarioPlayer::Play(const Scenario& scenario)
{
    for (size_t i = 0; i < scenario.steps.size(); ++i) {
        if (::WaitForSingleObject(stopEvent_, 0) == WAIT_OBJECT_0) {
            return false;
        }
        const size_t number = i + 1;
        const ScenarioStep& step = scenario.steps[i];
        if (const auto* event = std::get_if<EventStep>(&step)) {
            Write(number, *event);
        } else if (const auto* append = std::get_if<AppendStep>(&step)) {
            Append(number, *append);
        } else if (const auto* xml = std::get_if<EventXmlStep>(&step)) {
            WriteXml(number, xml->event);
        } else if (const auto* replay = std::get_if<ReplayStep>(&step)) {
            if (!Replay(number, *replay)) {
                return false;
            }
        } else if (const auto* pause = std::get_if<PauseStep>(&step)) {
            Announce(number, L"pause " + std::to_wstring(pause->milliseconds) + L" ms");
            if (::WaitForSingleObject(stopEvent_, pause->milliseconds) == WAIT_OBJECT_0) {
                return false;
            }
        } else {
            Announce(number, L"query");
            WaitForDeliveries(number);
            query_();
        }
    }
    return true;
}

void ScenarioPlayer::Write(size_t number, const EventStep& step)
{
    Announce(number, L"event " + std::to_wstring(step.id) + L" from '" + step.publisher + L"' in " + step.channel +
                         L": " + FirstLine(step.message));
    const EVT_SIM_EVENT event{
        step.channel.c_str(),      step.publisher.c_str(), step.id,
        step.time.value_or(Now()), step.message.c_str(),   step.formattable ? 0u : EVT_SIM_UNFORMATTABLE};
    const DWORD result = simulator_.WriteEvent(event);
    if (result != ERROR_SUCCESS) {
        StepFailed(number, L"the simulated event log refused the event: " + DescribeError(result));
    }
    WaitForDeliveries(number);
}

void ScenarioPlayer::WriteXml(size_t number, const EventXml& event)
{
    const std::wstring what =
        L"event " + std::to_wstring(event.id) + L" from '" + event.publisher + L"' in " + event.channel;
    if (!replayer_.Write(event)) {
        Announce(number, what + L": skipped, no metric subscribes to the channel");
        return;
    }
    Announce(number, what + L" (" + std::to_wstring(event.insertions.size()) + L" insertion string(s))");
    WaitForDeliveries(number);
}

bool ScenarioPlayer::Replay(size_t number, const ReplayStep& step)
{
    Announce(number, L"replay " + step.file);
    const EventFile& file = step.events;
    size_t written = 0;
    size_t skipped = 0;
    bool stopped = false;
    for (const EventXml& event : file.events) {
        if (::WaitForSingleObject(stopEvent_, 0) == WAIT_OBJECT_0) {
            stopped = true;
            break;
        }
        ++(replayer_.Write(event) ? written : skipped);
    }
    WaitForDeliveries(number);
    Announce(number, std::to_wstring(written + skipped) + L" event(s) read, " + std::to_wstring(written) +
                         L" written, " + std::to_wstring(skipped) +
                         L" skipped (no metric subscribes to their channel)");
    if (file.fault && !stopped) {
        throw HostError(ExitCode::ScenarioInvalid, L"the event file '" + step.file + L"' is malformed: " + *file.fault +
                                                       L"; the " + std::to_wstring(file.events.size()) +
                                                       L" event(s) before it were replayed");
    }
    return !stopped;
}

void ScenarioPlayer::Append(size_t number, const AppendStep& step)
{
    const std::wstring path = ExpandEnvironment(step.file);
    Announce(number, L"append " + std::to_wstring(std::count(step.text.begin(), step.text.end(), L'\n')) +
                         L" line(s) to " + path);
    std::string bytes;
    if (step.utf8) {
        bytes = ToUtf8(step.text);
    } else {
        bytes.assign(reinterpret_cast<const char*>(step.text.data()), step.text.size() * sizeof(wchar_t));
    }
    // Shared like the service's own log, which its readers open with full sharing.
    const unique_file file(::CreateFileW(path.c_str(), FILE_APPEND_DATA,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || !::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ||
        written != bytes.size()) {
        StepFailed(number, L"cannot append to '" + path + L"': " + SystemMessage(::GetLastError()));
    }
}

void ScenarioPlayer::WaitForDeliveries(size_t number)
{
    if (!simulator_.WaitForDeliveries(kDeliveryWaitMs)) {
        StepFailed(number, L"the simulated event log's deliveries did not finish within " +
                               std::to_wstring(kDeliveryWaitMs / 1000) + L" s");
    }
}

}  // namespace zeph::host
