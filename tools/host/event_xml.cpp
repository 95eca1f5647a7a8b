#include "event_xml.h"

#include "console.h"
#include "event_scan.h"
#include "scenario.h"
#include "support/text.h"
#include "win/com_strings.h"
#include "win/unique_resource.h"
#include "xml_parse_fault.h"

#include <oleauto.h>

#include <cwchar>

namespace zeph::host {

namespace {

constexpr wchar_t kEventTag[] = L"Event";

ComPtr<IXMLDOMElement> Child(IXMLDOMElement* parent, const wchar_t* localName)
{
    for (auto& child : ChildElements(parent)) {
        if (LocalName(child.Get()) == localName) {
            return child;
        }
    }
    return nullptr;
}

std::wstring Trimmed(std::wstring text)
{
    const size_t first = text.find_first_not_of(L" \t\r\n");
    if (first == std::wstring::npos) {
        return std::wstring();
    }
    return text.substr(first, text.find_last_not_of(L" \t\r\n") - first + 1);
}

std::optional<USHORT> EventId(const std::wstring& text)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of(L"0123456789") != std::wstring::npos) {
        return std::nullopt;
    }
    const unsigned long value = std::wcstoul(text.c_str(), nullptr, 10);
    return value <= 65535 ? std::optional<USHORT>(static_cast<USHORT>(value)) : std::nullopt;
}

// The parse-error object's line, column and reason; where it has none (Wine's), the
// fault as the SAX reader finds it in the same text.
std::wstring DomFaultText(IXMLDOMDocument* document, const TextPosition& start, std::wstring_view source)
{
    const DomParseError error = ParseErrorOf(document);
    XmlFault fault{error.line, error.column, Trimmed(error.reason)};
    if (fault.line <= 0) {
        if (auto found = XmlParseFault(source)) {
            fault = std::move(*found);
        }
    }
    return PlacedFrom(start, fault).Text();
}

}  // namespace

std::optional<ULONGLONG> ParseSystemTime(std::wstring_view text)
{
    // Fraction digits past the seventh are below a FILETIME's 100 ns.
    const size_t dot = text.find(L'.');
    if (dot != std::wstring_view::npos && text.size() > dot + 9 && text.size() - dot - 2 <= 9) {
        std::wstring shortened(text.substr(0, dot + 8));
        shortened += L'Z';
        if (text.back() != L'Z') {
            return std::nullopt;
        }
        return ParseUtcTime(shortened);
    }
    return ParseUtcTime(text);
}

EventXml ReadEventElement(IXMLDOMElement* event)
{
    if (LocalName(event) != kEventTag) {
        throw EventXmlError(L"expected <Event>, found <" + TagName(event) + L">");
    }
    const auto system = Child(event, L"System");
    if (!system) {
        throw EventXmlError(L"<Event> has no <System>");
    }
    EventXml result;
    const auto provider = Child(system.Get(), L"Provider");
    const auto publisher = provider ? Attribute(provider.Get(), L"Name") : std::nullopt;
    if (!publisher || publisher->empty()) {
        throw EventXmlError(L"<Event> has no System/Provider/@Name");
    }
    result.publisher = *publisher;

    const auto id = Child(system.Get(), L"EventID");
    if (!id) {
        throw EventXmlError(L"<Event> has no System/EventID");
    }
    const std::wstring idText = Trimmed(ElementText(id.Get()));
    const auto idNumber = EventId(idText);
    if (!idNumber) {
        throw EventXmlError(L"System/EventID must be a whole number from 0 to 65535, not '" + idText + L"'");
    }
    result.id = *idNumber;

    const auto created = Child(system.Get(), L"TimeCreated");
    const auto time = created ? Attribute(created.Get(), L"SystemTime") : std::nullopt;
    if (!time) {
        throw EventXmlError(L"<Event> has no System/TimeCreated/@SystemTime");
    }
    const auto fileTime = ParseSystemTime(*time);
    if (!fileTime) {
        throw EventXmlError(L"System/TimeCreated/@SystemTime must read like 2024-05-14T07:58:41.2071234Z, not '" +
                            *time + L"'");
    }
    result.timeCreated = *fileTime;

    const auto channel = Child(system.Get(), L"Channel");
    result.channel = channel ? Trimmed(ElementText(channel.Get())) : std::wstring();
    if (result.channel.empty()) {
        throw EventXmlError(L"<Event> has no System/Channel");
    }

    if (const auto data = Child(event, L"EventData")) {
        for (const auto& item : ChildElements(data.Get())) {
            if (LocalName(item.Get()) == L"Data") {
                result.insertions.push_back(ElementText(item.Get()));
            }
        }
    } else if (const auto userData = Child(event, L"UserData")) {
        // One element of the publisher's own schema; its children are the values, in order.
        const auto children = ChildElements(userData.Get());
        if (!children.empty()) {
            for (const auto& item : ChildElements(children.front().Get())) {
                result.insertions.push_back(ElementText(item.Get()));
            }
        }
    }
    if (const auto rendering = Child(event, L"RenderingInfo")) {
        if (const auto message = Child(rendering.Get(), L"Message")) {
            // The parser made every line end a line feed; Windows messages end lines with CR LF.
            std::wstring text;
            for (wchar_t c : ElementText(message.Get())) {
                if (c == L'\n' && (text.empty() || text.back() != L'\r')) {
                    text += L'\r';
                }
                text += c;
            }
            result.renderedMessage = std::move(text);
        }
    }
    return result;
}

EventFile ParseEventText(std::wstring_view text)
{
    EventFile file;
    ComPtr<IXMLDOMDocument> document;
    TextPosition position;  // of the event's start, carried along: a file may hold many thousands
    size_t positionAt = 0;
    const auto fault = ScanEvents(text, [&](size_t number, size_t start, size_t end) {
        if (!document) {
            document = NewHostXmlDocument();
        }
        position = Advance(position, text, positionAt, start);
        positionAt = start;
        // Loaded as UTF-8 bytes from a stream (see MemoryStream).
        const std::wstring_view source = text.substr(start, end - start);
        if (LoadXml(document.Get(), MemoryStream(ToUtf8(source)).Get()) != S_OK) {
            file.fault = L"event " + std::to_wstring(number) + L": " + DomFaultText(document.Get(), position, source);
            return false;
        }
        try {
            file.events.push_back(ReadEventElement(RootElement(document.Get()).Get()));
        } catch (const EventXmlError& error) {
            file.fault = L"event " + std::to_wstring(number) + L" (" + Describe(position) + L"): " + error.What();
            return false;
        }
        return true;
    });
    if (!file.fault) {
        file.fault = fault;
    }
    return file;
}

EventFile LoadEventFile(const std::wstring& path)
{
    const unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    LARGE_INTEGER size = {};
    if (!file || !::GetFileSizeEx(file.get(), &size)) {
        throw HostError(ExitCode::ScenarioInvalid,
                        L"cannot read the event file '" + path + L"': " + SystemMessage(::GetLastError()));
    }
    if (size.QuadPart > 0x40000000) {
        throw HostError(ExitCode::ScenarioInvalid, L"the event file '" + path + L"' is larger than 1 GB");
    }
    std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
    DWORD read = 0;
    if (!bytes.empty() && (!::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                           read != bytes.size())) {
        throw HostError(ExitCode::ScenarioInvalid,
                        L"cannot read the event file '" + path + L"': " + SystemMessage(::GetLastError()));
    }
    return ParseEventText(DecodeText(bytes));
}

}  // namespace zeph::host
