// Reading a delivered event: EvtRender values and EvtFormatMessage text, both with the
// two-call buffer protocol, and the errors callers must handle.
#include "sim_recorder.h"

#include <cwctype>

namespace simtest {
namespace {

class RenderFormatTest : public SimTest {};

struct RenderResult {
    BOOL ok = FALSE;
    DWORD error = 0;
    DWORD used = 0;
    DWORD count = 0;
};

RenderResult Render(EVT_HANDLE context, EVT_HANDLE event, DWORD size, void* buffer, DWORD flags = EvtRenderEventValues) {
    RenderResult r;
    SetLastError(0xdead);
    r.ok = EvtRender(context, event, flags, size, buffer, &r.used, &r.count);
    r.error = GetLastError();
    return r;
}

struct FormatResult {
    BOOL ok = FALSE;
    DWORD error = 0;
    DWORD used = 0;
    std::wstring text;
};

FormatResult Format(EVT_HANDLE metadata, EVT_HANDLE event, DWORD size, DWORD flags = EvtFormatMessageEvent) {
    FormatResult r;
    std::vector<wchar_t> buffer(size + 1, L'#');
    SetLastError(0xdead);
    r.ok = EvtFormatMessage(metadata, event, 0, 0, nullptr, flags, size, size ? buffer.data() : nullptr, &r.used);
    r.error = GetLastError();
    if (r.ok) r.text = buffer.data();
    return r;
}

UniqueEvt MakeRenderContext(std::vector<LPCWSTR> paths) {
    return UniqueEvt(EvtCreateRenderContext(static_cast<DWORD>(paths.size()), paths.data(), EvtRenderContextValues));
}

TEST_F(RenderFormatTest, RendersValuesInPathOrderAfterASizeQuery) {
    UniqueEvt context = MakeRenderContext(
        {L"Event/System/TimeCreated/@SystemTime", L"Event/System/Level", L"Event/System/EventID"});
    ASSERT_TRUE(context);
    RenderResult query, tooSmall, full, missing;
    std::vector<EVT_VARIANT> values(3), nulls(3);
    Recorder recorder([&](EVT_SUBSCRIBE_NOTIFY_ACTION, EVT_HANDLE event) {
        if (recorder.Calls().size() == 1) {
            query = Render(context.get(), event, 0, nullptr);
            tooSmall = Render(context.get(), event, query.used - 1, values.data());
            full = Render(context.get(), event, query.used, values.data());
        } else {
            missing = Render(context.get(), event, 3 * sizeof(EVT_VARIANT), nulls.data());
        }
    });
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Render", 1000, L"m", 0, 0x01d9a0b0c0d0e0f0ull));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Render", 1001, L"m", EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    ASSERT_EQ(2u, recorder.Calls().size());

    EXPECT_FALSE(query.ok);
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, query.error);
    EXPECT_EQ(3 * sizeof(EVT_VARIANT), query.used);
    EXPECT_EQ(3u, query.count);
    EXPECT_FALSE(tooSmall.ok);
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, tooSmall.error);

    ASSERT_TRUE(full.ok);
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, full.error);
    EXPECT_EQ(3u, full.count);
    EXPECT_EQ(DWORD{EvtVarTypeFileTime}, values[0].Type);
    EXPECT_EQ(0x01d9a0b0c0d0e0f0ull, values[0].FileTimeVal);
    EXPECT_EQ(DWORD{EvtVarTypeNull}, values[1].Type);
    EXPECT_EQ(DWORD{EvtVarTypeUInt16}, values[2].Type);
    EXPECT_EQ(1000, values[2].UInt16Val);

    ASSERT_TRUE(missing.ok);
    for (const EVT_VARIANT& v : nulls) EXPECT_EQ(DWORD{EvtVarTypeNull}, v.Type);
}

TEST_F(RenderFormatTest, FormatsTheMessageAfterASizeQuery) {
    const std::wstring message = L"Faulting application name: demo.exe";
    const DWORD needed = static_cast<DWORD>(message.size() + 1);
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Zeph Format", 1, L"before"));  // makes the publisher known
    SetLastError(0xdead);
    UniqueEvt metadata(EvtOpenPublisherMetadata(nullptr, L"zeph FORMAT", nullptr, 0, 0));
    ASSERT_TRUE(metadata);
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, GetLastError());

    FormatResult query, exact, shortByOne, own, empty;
    Recorder recorder([&](EVT_SUBSCRIBE_NOTIFY_ACTION, EVT_HANDLE event) {
        if (recorder.Calls().size() == 1) {
            query = Format(metadata.get(), event, 0);
            shortByOne = Format(metadata.get(), event, query.used - 1);
            exact = Format(metadata.get(), event, query.used);
            own = Format(nullptr, event, query.used);
        } else {
            empty = Format(metadata.get(), event, 1);
        }
    });
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Zeph Format", 1000, message.c_str()));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Zeph Format", 1001, L""));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    ASSERT_EQ(2u, recorder.Calls().size());

    EXPECT_FALSE(query.ok);
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, query.error);
    EXPECT_EQ(needed, query.used);
    EXPECT_FALSE(shortByOne.ok);
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, shortByOne.error);
    EXPECT_EQ(needed, shortByOne.used);
    for (const FormatResult* r : {&exact, &own}) {
        EXPECT_TRUE(r->ok);
        EXPECT_EQ(DWORD{ERROR_SUCCESS}, r->error);
        EXPECT_EQ(needed, r->used);
        EXPECT_EQ(message, r->text);
    }
    EXPECT_TRUE(empty.ok);
    EXPECT_EQ(1u, empty.used);
    EXPECT_EQ(L"", empty.text);
}

TEST_F(RenderFormatTest, RefusesBadHandlesUnsupportedModesAndForeignMessages) {
    UniqueEvt context = MakeRenderContext({L"Event/System/EventID"});
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Somebody Else", 1));
    UniqueEvt otherMetadata(EvtOpenPublisherMetadata(nullptr, L"Somebody Else", nullptr, 0, 0));
    ASSERT_TRUE(context && otherMetadata);

    EVT_HANDLE stale = nullptr;
    RenderResult noContext, eventAsContext, xml;
    FormatResult unformattable, otherPublisher, xmlText, eventAsMetadata;
    EVT_VARIANT value{};
    Recorder recorder([&](EVT_SUBSCRIBE_NOTIFY_ACTION, EVT_HANDLE event) {
        stale = event;
        if (recorder.Calls().size() == 1) {
            unformattable = Format(nullptr, event, 256);
            return;
        }
        noContext = Render(nullptr, event, sizeof value, &value);
        eventAsContext = Render(event, event, sizeof value, &value);
        xml = Render(nullptr, event, sizeof value, &value, EvtRenderEventXml);
        otherPublisher = Format(otherMetadata.get(), event, 256);
        xmlText = Format(nullptr, event, 256, EvtFormatMessageXml);
        eventAsMetadata = Format(event, event, 256);
    });
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Mine", 1, L"text", EVT_SIM_UNFORMATTABLE));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Mine", 2, L"text"));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    ASSERT_EQ(2u, recorder.Calls().size());

    EXPECT_EQ(DWORD{ERROR_EVT_MESSAGE_NOT_FOUND}, unformattable.error);
    EXPECT_EQ(DWORD{ERROR_EVT_MESSAGE_NOT_FOUND}, otherPublisher.error);
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, noContext.error);
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, eventAsContext.error);
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, eventAsMetadata.error);
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, xml.error);
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, xmlText.error);
    for (const FormatResult* r : {&unformattable, &otherPublisher, &xmlText, &eventAsMetadata}) EXPECT_FALSE(r->ok);

    // The event handle belonged to the callback and is gone once it returned.
    const RenderResult late = Render(context.get(), stale, sizeof value, &value);
    EXPECT_FALSE(late.ok);
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, late.error);

    LPCWSTR path = L"Event/System/EventID";
    EXPECT_EQ(nullptr, EvtCreateRenderContext(1, &path, EvtRenderContextSystem));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, GetLastError());
}

TEST_F(RenderFormatTest, PublisherMetadataExistsOnlyForWrittenPublishers) {
    // Publishers stay known for the life of the process, so the name is new to each run.
    const std::wstring publisher = L"Unwritten " + channel_;
    std::wstring shouted = publisher;
    for (wchar_t& c : shouted) c = static_cast<wchar_t>(std::towupper(c));
    SetLastError(0);
    EXPECT_EQ(nullptr, EvtOpenPublisherMetadata(nullptr, publisher.c_str(), nullptr, 0, 0));
    EXPECT_EQ(DWORD{ERROR_EVT_PUBLISHER_METADATA_NOT_FOUND}, GetLastError());

    const LONG64 before = EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA);
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(publisher.c_str(), 1));  // no subscriber needed
    UniqueEvt metadata(EvtOpenPublisherMetadata(nullptr, shouted.c_str(), nullptr, 0, 0));
    EXPECT_TRUE(metadata);
    EXPECT_EQ(before + 1, EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA));
    metadata.reset();
    EXPECT_EQ(before, EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA));
}

}  // namespace
}  // namespace simtest
