#include "scenario.h"

#include "exit_codes.h"
#include "win/file_time.h"
#include "xml_file.h"

#include <algorithm>
#include <initializer_list>

namespace zeph::host {

namespace {

constexpr DWORD kMaxPauseMs = 3600000;
constexpr wchar_t kLineEnd[] = L"\r\n";

bool IsBlank(wchar_t c)
{
    return c == L' ' || c == L'\t';
}

bool IsBlankLine(std::wstring_view line)
{
    return std::all_of(line.begin(), line.end(), IsBlank);
}

std::optional<unsigned> Digits(std::wstring_view text)
{
    if (text.empty() || text.size() > 9) {
        return std::nullopt;
    }
    unsigned value = 0;
    for (wchar_t c : text) {
        if (c < L'0' || c > L'9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<unsigned>(c - L'0');
    }
    return value;
}

unsigned DaysInMonth(unsigned year, unsigned month)
{
    constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : kDays[month - 1];
}

class StepReader {
public:
    StepReader(const std::wstring& path, size_t number, IXMLDOMElement* element)
        : where_(L"the scenario '" + path + L"', step " + std::to_wstring(number) + L" <" + TagName(element) + L">"),
          element_(element)
    {
    }

    [[noreturn]] void Fail(const std::wstring& what) const
    {
        throw HostError(ExitCode::ScenarioInvalid, where_ + L": " + what);
    }

    std::wstring Required(const wchar_t* name) const
    {
        auto value = Attribute(element_, name);
        if (!value || value->empty()) {
            Fail(std::wstring(L"attribute ") + name + L" is missing");
        }
        return *value;
    }

    std::optional<std::wstring> Optional(const wchar_t* name) const { return Attribute(element_, name); }

    // A misspelt attribute would otherwise be ignored without a word.
    void OnlyAttributes(std::initializer_list<const wchar_t*> known) const
    {
        for (const std::wstring& name : AttributeNames(element_)) {
            if (std::find_if(known.begin(), known.end(), [&](const wchar_t* k) { return name == k; }) != known.end()) {
                continue;
            }
            std::wstring expected;
            for (const wchar_t* k : known) {
                expected += (expected.empty() ? L"" : L", ") + std::wstring(k);
            }
            Fail(L"unknown attribute '" + name + L"'" +
                 (known.size() == 0 ? std::wstring(L" (it takes none)") : L" (expected " + expected + L")"));
        }
    }

    unsigned Number(const wchar_t* name, unsigned maximum) const
    {
        const std::wstring text = Required(name);
        const auto value = Digits(text);
        if (!value || *value > maximum) {
            Fail(std::wstring(L"attribute ") + name + L" must be a whole number from 0 to " + std::to_wstring(maximum) +
                 L", not '" + text + L"'");
        }
        return *value;
    }

    void NoText() const
    {
        if (!IsBlankLine(ElementText(element_)) || !ChildElements(element_).empty()) {
            Fail(L"takes no content");
        }
    }

    std::vector<std::wstring> Lines() const
    {
        if (!ChildElements(element_).empty()) {
            Fail(L"holds text only, no elements");
        }
        return BlockLines(ElementText(element_));
    }

private:
    std::wstring where_;
    IXMLDOMElement* element_;
};

EventStep ReadEvent(const StepReader& reader)
{
    reader.OnlyAttributes({L"channel", L"publisher", L"id", L"time", L"formattable"});
    EventStep step;
    step.channel = reader.Required(L"channel");
    step.publisher = reader.Required(L"publisher");
    step.id = static_cast<USHORT>(reader.Number(L"id", 65535));
    if (const auto time = reader.Optional(L"time")) {
        step.time = ParseUtcTime(*time);
        if (!step.time) {
            reader.Fail(L"attribute time must read like 2024-05-14T08:02:11.418Z (UTC), not '" + *time + L"'");
        }
    }
    if (const auto formattable = reader.Optional(L"formattable")) {
        if (*formattable != L"true" && *formattable != L"false") {
            reader.Fail(L"attribute formattable must be true or false");
        }
        step.formattable = *formattable == L"true";
    }
    const auto lines = reader.Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        step.message += (i == 0 ? L"" : kLineEnd) + lines[i];
    }
    return step;
}

AppendStep ReadAppend(const StepReader& reader)
{
    reader.OnlyAttributes({L"file", L"encoding"});
    AppendStep step;
    step.file = reader.Required(L"file");
    if (const auto encoding = reader.Optional(L"encoding")) {
        if (*encoding != L"utf-16le" && *encoding != L"utf-8") {
            reader.Fail(L"attribute encoding must be utf-16le or utf-8");
        }
        step.utf8 = *encoding == L"utf-8";
    }
    for (const std::wstring& line : reader.Lines()) {
        step.text += line + kLineEnd;
    }
    return step;
}

EventXmlStep ReadEventXml(const StepReader& reader, IXMLDOMElement* element)
{
    try {
        return EventXmlStep{ReadEventElement(element)};
    } catch (const EventXmlError& error) {
        reader.Fail(error.What());
    }
}

// A relative path names a file beside the scenario.
std::wstring BesideScenario(const std::wstring& scenarioPath, const std::wstring& file)
{
    const bool absolute = (file.size() > 2 && file[1] == L':') || file.starts_with(L"\\") || file.starts_with(L"/");
    const size_t slash = scenarioPath.find_last_of(L"\\/");
    return absolute || slash == std::wstring::npos ? file : scenarioPath.substr(0, slash + 1) + file;
}

}  // namespace

std::vector<std::wstring> Scenario::Channels() const
{
    std::vector<std::wstring> channels;
    for (const ScenarioStep& step : steps) {
        if (const auto* event = std::get_if<EventStep>(&step)) {
            if (std::find(channels.begin(), channels.end(), event->channel) == channels.end()) {
                channels.push_back(event->channel);
            }
        }
    }
    return channels;
}

std::vector<std::wstring> BlockLines(std::wstring_view text)
{
    std::vector<std::wstring> lines;
    size_t start = 0;
    while (true) {
        const size_t end = text.find_first_of(L"\r\n", start);
        std::wstring line(text.substr(start, end == std::wstring_view::npos ? std::wstring_view::npos : end - start));
        while (!line.empty() && IsBlank(line.back())) {
            line.pop_back();
        }
        lines.push_back(std::move(line));
        if (end == std::wstring_view::npos) {
            break;
        }
        start = end + ((text[end] == L'\r' && end + 1 < text.size() && text[end + 1] == L'\n') ? 2 : 1);
    }
    // The line break after the opening tag and the indentation of the closing tag.
    if (lines.size() > 1 && lines.front().empty()) {
        lines.erase(lines.begin());
    }
    if (lines.size() > 1 && lines.back().empty()) {
        lines.pop_back();
    }
    size_t indent = std::wstring::npos;
    for (const std::wstring& line : lines) {
        if (!line.empty()) {
            indent = std::min(indent, line.find_first_not_of(L" \t"));
        }
    }
    for (std::wstring& line : lines) {
        if (!line.empty()) {
            line.erase(0, indent);
        }
    }
    if (lines.size() == 1 && lines.front().empty()) {
        lines.clear();
    }
    return lines;
}

std::optional<ULONGLONG> ParseUtcTime(std::wstring_view text)
{
    // YYYY-MM-DDThh:mm:ss[.f{1,7}]Z
    if (text.size() < 20 || text.back() != L'Z' || text[4] != L'-' || text[7] != L'-' ||
        (text[10] != L'T' && text[10] != L' ') || text[13] != L':' || text[16] != L':') {
        return std::nullopt;
    }
    const auto year = Digits(text.substr(0, 4));
    const auto month = Digits(text.substr(5, 2));
    const auto day = Digits(text.substr(8, 2));
    const auto hour = Digits(text.substr(11, 2));
    const auto minute = Digits(text.substr(14, 2));
    const auto second = Digits(text.substr(17, 2));
    if (!year || !month || !day || !hour || !minute || !second) {
        return std::nullopt;
    }
    ULONGLONG fraction = 0;  // in 100 ns units
    const std::wstring_view rest = text.substr(19, text.size() - 20);
    if (!rest.empty()) {
        if (rest.front() != L'.' || rest.size() < 2 || rest.size() > 8) {
            return std::nullopt;
        }
        const auto digits = Digits(rest.substr(1));
        if (!digits) {
            return std::nullopt;
        }
        fraction = *digits;
        for (size_t i = rest.size() - 1; i < 7; ++i) {
            fraction *= 10;
        }
    }
    SYSTEMTIME utc = {};
    utc.wYear = static_cast<WORD>(*year);
    utc.wMonth = static_cast<WORD>(*month);
    utc.wDay = static_cast<WORD>(*day);
    utc.wHour = static_cast<WORD>(*hour);
    utc.wMinute = static_cast<WORD>(*minute);
    utc.wSecond = static_cast<WORD>(*second);
    FILETIME fileTime = {};
    if (*month < 1 || *month > 12 || *day < 1 || *day > DaysInMonth(*year, *month) || *hour > 23 || *minute > 59 ||
        *second > 59 || !::SystemTimeToFileTime(&utc, &fileTime)) {
        return std::nullopt;
    }
    return FileTimeCount(fileTime) + fraction;
}

void ReadEventFiles(Scenario& scenario)
{
    for (ScenarioStep& step : scenario.steps) {
        if (auto* replay = std::get_if<ReplayStep>(&step)) {
            replay->events = LoadEventFile(replay->file);
        }
    }
}

Scenario LoadScenario(const std::wstring& path)
{
    const auto document = LoadXmlFile(path, L"scenario", ExitCode::ScenarioInvalid, ExitCode::ScenarioInvalid);
    const auto root = RootElement(document.Get());
    if (TagName(root.Get()) != L"scenario") {
        throw HostError(
            ExitCode::ScenarioInvalid,
            L"the scenario '" + path + L"' must have the root element <scenario>, not <" + TagName(root.Get()) + L">");
    }
    Scenario scenario;
    for (const auto& element : ChildElements(root.Get())) {
        const StepReader reader(path, scenario.steps.size() + 1, element.Get());
        const std::wstring tag = TagName(element.Get());
        if (tag == L"event") {
            scenario.steps.emplace_back(ReadEvent(reader));
        } else if (tag == L"append") {
            scenario.steps.emplace_back(ReadAppend(reader));
        } else if (tag == L"pause") {
            reader.OnlyAttributes({L"ms"});
            reader.NoText();
            scenario.steps.emplace_back(PauseStep{reader.Number(L"ms", kMaxPauseMs)});
        } else if (tag == L"query") {
            reader.OnlyAttributes({});
            reader.NoText();
            scenario.steps.emplace_back(QueryStep{});
        } else if (tag == L"Event") {
            scenario.steps.emplace_back(ReadEventXml(reader, element.Get()));
        } else if (tag == L"replay") {
            reader.OnlyAttributes({L"file"});
            reader.NoText();
            scenario.steps.emplace_back(ReplayStep{BesideScenario(path, reader.Required(L"file")), {}});
        } else {
            reader.Fail(L"unknown step (expected event, append, pause, query, Event or replay)");
        }
    }
    return scenario;
}

}  // namespace zeph::host
