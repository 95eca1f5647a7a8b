#include "message_templates.h"

#include "names.h"

#include <mutex>

namespace evtsim {

const wchar_t kApplicationErrorTemplate[] =
    L"Faulting application name: %1, version: %2, time stamp: 0x%3\r\n"
    L"Faulting module name: %4, version: %5, time stamp: 0x%6\r\n"
    L"Exception code: 0x%7\r\n"
    L"Fault offset: 0x%8\r\n"
    L"Faulting process id: 0x%9\r\n"
    L"Faulting application start time: 0x%10\r\n"
    L"Faulting application path: %11\r\n"
    L"Faulting module path: %12\r\n"
    L"Report Id: %13\r\n"
    L"Faulting package full name: %14\r\n"
    L"Faulting package-relative application ID: %15";

MessageTemplates::MessageTemplates()
{
    // Registered on every Windows desktop, so known before any of its events is written.
    Set(FoldCase(L"Application Error"), 1000, kApplicationErrorTemplate);
}

void MessageTemplates::Set(const std::wstring& publisherKey, USHORT eventId, std::wstring text)
{
    std::unique_lock lock(mutex_);
    byPublisher_[publisherKey][eventId] = std::move(text);
}

std::optional<std::wstring> MessageTemplates::Find(const std::wstring& publisherKey, USHORT eventId) const
{
    std::shared_lock lock(mutex_);
    const auto publisher = byPublisher_.find(publisherKey);
    if (publisher == byPublisher_.end()) {
        return std::nullopt;
    }
    const auto text = publisher->second.find(eventId);
    if (text == publisher->second.end()) {
        return std::nullopt;
    }
    return text->second;
}

bool MessageTemplates::KnowsPublisher(const std::wstring& publisherKey) const
{
    std::shared_lock lock(mutex_);
    return byPublisher_.count(publisherKey) != 0;
}

MessageTemplates& Templates()
{
    static MessageTemplates* templates = new MessageTemplates;  // outlives delivery threads
    return *templates;
}

namespace {

bool IsDigit(wchar_t c)
{
    return c >= L'0' && c <= L'9';
}

}  // namespace

DWORD ExpandTemplate(const std::wstring& text, const std::vector<std::wstring>& insertions, std::wstring* message)
{
    DWORD result = ERROR_SUCCESS;
    std::wstring out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        if (text[i] != L'%' || i + 1 == text.size()) {
            out += text[i++];
            continue;
        }
        const wchar_t next = text[i + 1];
        if (next == L'%') {
            if (i + 2 < text.size() && IsDigit(text[i + 2])) {
                size_t end = i + 2;
                while (end < text.size() && IsDigit(text[end])) {
                    ++end;
                }
                out.append(text, i, end - i);
                if (result == ERROR_SUCCESS) {
                    result = ERROR_EVT_UNRESOLVED_PARAMETER_INSERT;
                }
                i = end;
            } else {
                out += L'%';
                i += 2;
            }
            continue;
        }
        if (!IsDigit(next) || next == L'0') {
            out += text[i++];  // not an insertion: kept as written
            continue;
        }
        // One or two digits, as the message formatter reads them: %100 is %10 then "0".
        size_t end = i + 2;
        if (end < text.size() && IsDigit(text[end])) {
            ++end;
        }
        const size_t number = std::stoul(text.substr(i + 1, end - i - 1));
        if (number <= insertions.size()) {
            out += insertions[number - 1];
        } else {
            out.append(text, i, end - i);
            if (result == ERROR_SUCCESS) {
                result = ERROR_EVT_UNRESOLVED_VALUE_INSERT;
            }
        }
        i = end;
    }
    *message = std::move(out);
    return result;
}

}  // namespace evtsim
