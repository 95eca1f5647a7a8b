// The provider as a host holds it for one input: zeph_eventlog.dll loaded from
// bin/ through DllGetClassObject, given a recording logger and a host context,
// with one metric subscribed on the Application channel for one publisher;
// events written into the simulated event log, every wait bounded.
// Construction and queries state their failures as test failures.
#pragma once

#include "config_element.h"
#include "eventlog-sim/eventlog_sim.h"
#include "provider_loader.h"
#include "support/host_logger.h"
#include "support/host_value_sink.h"
#include "scratch.h"
#include "win/com_strings.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace zeph::fuzz {

// An event as the fuzz targets write it.
struct FuzzEvent {
    std::wstring message;  // the simulator takes it up to its first NUL, as a formatted message ends there
    ULONGLONG time = 0;
    DWORD flags = 0;  // EVT_SIM_* flags, or kErrorDelivery
    USHORT id = 0;
};

// Not an event: the event log's error delivery (EvtSubscribeActionError) in its place.
constexpr DWORD kErrorDelivery = 0x8;
// An event as Windows stores it: the message holds its insertion strings, each
// ended by kInsertionEnd, which the publisher's template formats.
constexpr DWORD kDataEvent = 0x10;
constexpr wchar_t kInsertionEnd = L'\x1F';
// How long the simulator may take to deliver an input's events.
constexpr DWORD kDeliveryDeadlineMs = 20000;

class ProviderSession {
public:
    ProviderSession(const wchar_t* metric, const wchar_t* publisher) : metric_(metric), publisher_(publisher)
    {
        instance_ = host::ProviderInstance::CreateFromDll(test::BinFolder() + L"zeph_eventlog.dll");
        EXPECT_EQ(instance_->Get()->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK);
        const auto config =
            test::MakeMetricConfig(L"Application", L"*[System[Provider[@Name='" + std::wstring(publisher) + L"']]]");
        EXPECT_EQ(instance_->Get()->SubscribeMetric(MakeBstr(metric_).get(), config.Get()), S_OK);
    }
    ~ProviderSession()
    {
        EXPECT_EQ(instance_->Get()->UnsubscribeAllMetrics(), S_OK);
        instance_->Release();
    }
    ProviderSession(const ProviderSession&) = delete;
    ProviderSession& operator=(const ProviderSession&) = delete;

    void Write(const FuzzEvent& event) const
    {
        if ((event.flags & kErrorDelivery) != 0) {
            EXPECT_EQ(::EvtSimDeliverError(L"Application", event.time & 0xFFFF), static_cast<DWORD>(ERROR_SUCCESS));
            return;
        }
        const DWORD flags = event.flags & (EVT_SIM_UNFORMATTABLE | EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID);
        if ((event.flags & kDataEvent) == 0) {
            const EVT_SIM_EVENT written{L"Application", publisher_.c_str(),    event.id,
                                        event.time,     event.message.c_str(), flags};
            EXPECT_EQ(::EvtSimWriteEvent(&written), static_cast<DWORD>(ERROR_SUCCESS));
            return;
        }
        std::vector<std::wstring> insertions(1);
        for (const wchar_t unit : event.message) {
            if (unit == kInsertionEnd) {
                insertions.emplace_back();
            } else {
                insertions.back() += unit;
            }
        }
        insertions.pop_back();  // what follows the last end is no insertion
        std::vector<LPCWSTR> pointers;
        for (const std::wstring& insertion : insertions) {
            pointers.push_back(insertion.c_str());
        }
        const EVT_SIM_EVENT_DATA written{L"Application",
                                         publisher_.c_str(),
                                         event.id,
                                         event.time,
                                         static_cast<DWORD>(pointers.size()),
                                         pointers.data(),
                                         nullptr,
                                         flags};
        EXPECT_EQ(::EvtSimWriteEventData(&written), static_cast<DWORD>(ERROR_SUCCESS));
    }
    static void WaitForDeliveries()
    {
        EXPECT_TRUE(::EvtSimWaitForDeliveries(kDeliveryDeadlineMs)) << "deliveries missed their deadline";
    }
    // The writes of one query, which must succeed.
    std::vector<SinkWrite> Query() const
    {
        const auto sink = Adopt(new HostValueSink());
        EXPECT_EQ(instance_->Get()->QueryMetric(MakeBstr(metric_).get(), 0, sink.Get()), S_OK);
        return sink->Writes();
    }
    const HostLogger& Logger() const { return *logger_.Get(); }

private:
    std::wstring metric_;
    std::wstring publisher_;
    Microsoft::WRL::ComPtr<HostLogger> logger_ = Adopt(new HostLogger(0x7));
    Microsoft::WRL::ComPtr<HostContext> context_ = Adopt(new HostContext());
    std::unique_ptr<host::ProviderInstance> instance_;
};

}  // namespace zeph::fuzz
