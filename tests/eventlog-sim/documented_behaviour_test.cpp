// The simulated event log where the Event Log API's documentation says what happens and the
// simulator once did otherwise: messages built from publisher templates and insertion
// strings (two calls, sizes in characters, 15029 with the text left in the buffer), a
// rendered message with no publisher metadata, string values rendered in the caller's
// buffer with sizes in bytes, and "Application Error" registered before any of its events.
#include "eventlog-sim/eventlog_sim.h"

#include <windows.h>
#include <winevt.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::wstring>;

// A subscription to a fresh channel whose callback runs `onEvent` on every delivered event.
class Channel {
public:
    explicit Channel(std::function<void(EVT_HANDLE)> onEvent) : onEvent_(std::move(onEvent))
    {
        static int next = 0;
        name_ = L"DocTest-" + std::to_wstring(++next);
        EXPECT_EQ(DWORD{ERROR_SUCCESS}, EvtSimAddChannel(name_.c_str()));
        subscription_ = EvtSubscribe(nullptr, nullptr, name_.c_str(), L"*", nullptr, this, &OnEvent,
                                     EvtSubscribeToFutureEvents);
        EXPECT_NE(nullptr, subscription_);
    }
    ~Channel() { EvtClose(subscription_); }

    void Write(const wchar_t* publisher, USHORT id, const Strings& insertions, const wchar_t* rendered = nullptr)
    {
        std::vector<LPCWSTR> pointers;
        for (const std::wstring& text : insertions) pointers.push_back(text.c_str());
        const EVT_SIM_EVENT_DATA event{name_.c_str(), publisher, id, 0x01d9a0b0c0d0e0f0ull,
                                       static_cast<DWORD>(pointers.size()), pointers.data(), rendered, 0};
        ASSERT_EQ(DWORD{ERROR_SUCCESS}, EvtSimWriteEventData(&event));
        ASSERT_TRUE(EvtSimWaitForDeliveries(30000));
    }

private:
    static DWORD WINAPI OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event)
    {
        if (action == EvtSubscribeActionDeliver) static_cast<Channel*>(context)->onEvent_(event);
        return 0;
    }

    std::function<void(EVT_HANDLE)> onEvent_;
    std::wstring name_;
    EVT_HANDLE subscription_ = nullptr;
};

struct Formatted {
    DWORD sizeError = 0;  // of the sizing call (no buffer, size 0)
    DWORD error = 0;      // of the second call, 0 when it succeeded
    DWORD used = 0;
    std::wstring text;
};

// The provider's two-call pattern: ask for the size, then format into exactly that.
Formatted Format(EVT_HANDLE metadata, EVT_HANDLE event)
{
    Formatted result;
    DWORD used = 0;
    SetLastError(0);
    EXPECT_FALSE(EvtFormatMessage(metadata, event, 0, 0, nullptr, EvtFormatMessageEvent, 0, nullptr, &used));
    result.sizeError = GetLastError();
    if (result.sizeError != ERROR_INSUFFICIENT_BUFFER) return result;
    std::wstring buffer(used, L'#');
    if (!EvtFormatMessage(metadata, event, 0, 0, nullptr, EvtFormatMessageEvent, used, buffer.data(), &result.used)) {
        result.error = GetLastError();
    }
    result.text = buffer.c_str();
    EXPECT_EQ(result.used, used);
    return result;
}

TEST(DocumentedBehaviour, MessagesFromTemplatesAndInsertionStrings)
{
    const wchar_t publisher[] = L"Doc Templates";
    struct Case {
        const wchar_t* format;
        Strings insertions;
        DWORD error;  // of the second call
        std::wstring text;
    };
    const Case cases[] = {
        {L"%1 and %2", {L"a", L"b"}, 0, L"a and b"},
        {L"name: %1\r\nnext: %2", {L"", L" "}, 0, L"name: \r\nnext:  "},  // blanks kept
        {L"%1, %2, %3", {L"x"}, ERROR_EVT_UNRESOLVED_VALUE_INSERT, L"x, %2, %3"},
        {L"100%% sure: %1%", {L"y"}, 0, L"100% sure: y%"},
        {L"%10|%1|%100|%0|%x", {L"1", L"2", L"3", L"4", L"5", L"6", L"7", L"8", L"9", L"ten"}, 0, L"ten|1|ten0|%0|%x"},
        {L"%1 is %%1843", {L"v"}, ERROR_EVT_UNRESOLVED_PARAMETER_INSERT, L"v is %%1843"},
        {L"", {}, 0, L""},
        {L"no inserts", {L"%1"}, 0, L"no inserts"},
        {L"%1", {L"%2"}, 0, L"%2"},  // insertion strings are not expanded again
    };
    std::vector<Formatted> seen, withoutMetadata;
    EVT_HANDLE metadata = nullptr;
    Channel channel([&](EVT_HANDLE event) {
        seen.push_back(Format(metadata, event));
        withoutMetadata.push_back(Format(nullptr, event));
    });
    for (USHORT id = 0; id < std::size(cases); ++id) {
        ASSERT_EQ(DWORD{ERROR_SUCCESS}, EvtSimSetMessageTemplate(publisher, id, cases[id].format));
    }
    metadata = EvtOpenPublisherMetadata(nullptr, publisher, nullptr, 0, 0);  // known by its templates
    ASSERT_NE(nullptr, metadata);
    for (USHORT id = 0; id < std::size(cases); ++id) channel.Write(publisher, id, cases[id].insertions);
    channel.Write(publisher, 999, {L"a"});                     // no template: 15027
    channel.Write(publisher, 1, {L"a", L"b"}, L"Rendered\r\n");  // a rendered message wins, metadata or none
    ASSERT_EQ(seen.size(), std::size(cases) + 2);
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, seen[i].sizeError) << i;
        EXPECT_EQ(cases[i].error, seen[i].error) << i;
        EXPECT_EQ(cases[i].text, seen[i].text) << i;
        EXPECT_EQ(cases[i].text.size() + 1, seen[i].used) << i;  // characters, with the terminator
        // Without a formatting context only a rendered message can be formatted.
        EXPECT_EQ(DWORD{ERROR_EVT_MESSAGE_NOT_FOUND}, withoutMetadata[i].sizeError) << i;
    }
    EXPECT_EQ(DWORD{ERROR_EVT_MESSAGE_NOT_FOUND}, seen[std::size(cases)].sizeError);
    for (const Formatted& rendered : {seen.back(), withoutMetadata.back()}) {
        EXPECT_EQ(0u, rendered.error);
        EXPECT_EQ(L"Rendered\r\n", rendered.text);
    }
    EvtClose(metadata);
}

// Its fifteen-field text is compared through the provider in tests/host/event_xml_test.cpp.
TEST(DocumentedBehaviour, ApplicationErrorTemplateIsBuiltIn)
{
    // Registered on every desktop: its metadata opens before any of its events is written.
    EVT_HANDLE metadata = EvtOpenPublisherMetadata(nullptr, L"application error", nullptr, 0, 0);
    ASSERT_NE(nullptr, metadata);
    std::vector<Formatted> seen;
    Channel channel([&](EVT_HANDLE event) { seen.push_back(Format(metadata, event)); });
    channel.Write(L"Application Error", 1000, Strings(13, L"v"));  // an older, shorter form
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(DWORD{ERROR_EVT_UNRESOLVED_VALUE_INSERT}, seen[0].error);
    EXPECT_TRUE(seen[0].text.starts_with(L"Faulting application name: v, version: v, time stamp: 0xv\r\n"));
    EXPECT_TRUE(seen[0].text.ends_with(
        L"\r\nReport Id: v\r\nFaulting package full name: %14\r\nFaulting package-relative application ID: %15"));
    EvtClose(metadata);
}

TEST(DocumentedBehaviour, StringValuesRenderIntoTheCallersBufferSizedInBytes)
{
    LPCWSTR paths[] = {L"Event/System/Provider/@Name", L"Event/System/EventID", L"Event/System/Channel",
                       L"Event/EventData/Data[@Name='Nothing']"};
    EVT_HANDLE context = EvtCreateRenderContext(4, paths, EvtRenderContextValues);
    ASSERT_NE(nullptr, context);
    DWORD sizeError = 0, needed = 0, count = 0;
    std::vector<EVT_VARIANT> values;
    std::wstring channelName;
    Channel channel([&](EVT_HANDLE event) {
        EvtRender(context, event, EvtRenderEventValues, 0, nullptr, &needed, &count);
        sizeError = GetLastError();
        values.resize(needed / sizeof(EVT_VARIANT) + 1);
        ASSERT_TRUE(EvtRender(context, event, EvtRenderEventValues, needed, values.data(), &needed, &count));
        channelName = values[2].StringVal;  // points into the buffer, valid while it is
    });
    channel.Write(L"Doc Render", 7, {});
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, sizeError);
    EXPECT_EQ(4u, count);
    EXPECT_EQ(4 * sizeof(EVT_VARIANT) + sizeof(L"Doc Render") + (channelName.size() + 1) * sizeof(wchar_t), needed);
    ASSERT_EQ(DWORD{EvtVarTypeString}, values[0].Type);
    EXPECT_STREQ(L"Doc Render", values[0].StringVal);
    EXPECT_EQ(DWORD{EvtVarTypeUInt16}, values[1].Type);
    EXPECT_TRUE(channelName.starts_with(L"DocTest-"));
    EXPECT_EQ(DWORD{EvtVarTypeNull}, values[3].Type);  // a path that matches nothing renders as NULL
    EvtClose(context);
}

}  // namespace
