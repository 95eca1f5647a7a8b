#include "host_session.h"

#include "configuration.h"
#include "console.h"
#include "event_source_check.h"
#include "provider_loader.h"
#include "replay.h"
#include "scenario.h"
#include "scenario_player.h"
#include "simulator_controls.h"
#include "support/host_logger.h"
#include "support/host_value_sink.h"
#include "value_format.h"
#include "win/com_strings.h"
#include "win/unique_resource.h"

#include <objbase.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace zeph::host {

namespace {

using Microsoft::WRL::ComPtr;

class ComApartment {
public:
    ComApartment()
    {
        // The multithreaded apartment, as the agent's threads: the provider calls
        // the logger straight from the event log's delivery threads.
        const HRESULT result = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        if (FAILED(result)) {
            throw HostError(ExitCode::RunFailed, L"cannot start COM: " + DescribeError(static_cast<DWORD>(result)));
        }
    }
    ~ComApartment() { ::CoUninitialize(); }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
};

// Everything subscribed goes again when this ends, however the run ends.
class Subscriptions {
public:
    explicit Subscriptions(IDataProviderEx* provider) : provider_(provider) {}
    ~Subscriptions()
    {
        if (any_) {
            const HRESULT result = provider_->UnsubscribeAllMetrics();
            if (FAILED(result)) {
                WriteErr(L"zeph-host: unsubscribing failed: " + DescribeError(static_cast<DWORD>(result)) + L"\n");
            }
        }
    }
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;

    void Subscribe(const MetricConfig& metric)
    {
        any_ = true;
        const HRESULT result = provider_->SubscribeMetric(MakeBstr(metric.name).get(), metric.element.Get());
        if (FAILED(result)) {
            throw HostError(ExitCode::SubscribeFailed, L"cannot subscribe the metric '" + metric.name + L"': " +
                                                           DescribeError(static_cast<DWORD>(result)));
        }
    }

private:
    IDataProviderEx* provider_;
    bool any_ = false;
};

class Querier {
public:
    Querier(IDataProviderEx* provider, HostValueSink* sink, std::vector<std::wstring> metrics, bool json)
        : provider_(provider), sink_(sink), metrics_(std::move(metrics)), json_(json)
    {
    }

    void QueryAll()
    {
        ++number_;
        SYSTEMTIME now = {};
        ::GetSystemTime(&now);
        std::wstring text = json_ ? std::wstring() : TableHeader(number_, now);
        for (const std::wstring& metric : metrics_) {
            MetricQuery query;
            query.query = number_;
            query.metric = metric;
            sink_->Take();
            query.result = provider_->QueryMetric(MakeBstr(metric).get(), static_cast<LONG_PTR>(number_), sink_);
            query.values = sink_->Take();
            failed_ = failed_ || FAILED(query.result);
            text += json_ ? JsonLines(query, now) : TableLines(query);
        }
        if (!json_) {
            text += L"\n";
        }
        WriteOut(text);
    }

    bool AnyFailed() const { return failed_; }

private:
    IDataProviderEx* provider_;
    HostValueSink* sink_;
    std::vector<std::wstring> metrics_;
    bool json_;
    unsigned number_ = 0;
    bool failed_ = false;
};

std::vector<std::wstring> DistinctNames(const Configuration& configuration)
{
    std::vector<std::wstring> names;
    for (const MetricConfig& metric : configuration.metrics) {
        if (std::find(names.begin(), names.end(), metric.name) == names.end()) {
            names.push_back(metric.name);
        }
    }
    return names;
}

void AddChannels(const SimulatorControls& simulator, const Scenario& scenario)
{
    for (const std::wstring& channel : scenario.Channels()) {
        const DWORD result = simulator.AddChannel(channel);
        if (result != ERROR_SUCCESS && result != ERROR_ALREADY_EXISTS) {
            throw HostError(ExitCode::ScenarioFailed, L"the simulated event log refused the channel '" + channel +
                                                          L"': " + DescribeError(result));
        }
    }
}

// The provider takes an unknown metric name with success and without a word; only its
// info line "created metric '...'." tells a name it took.
bool CreatedMetric(const HostLogger& logger, const std::wstring& name)
{
    const auto texts = logger.Texts();
    return std::find(texts.begin(), texts.end(), L"created metric '" + name + L"'.") != texts.end();
}

bool Stopped(HANDLE stopEvent, DWORD waitMs)
{
    return ::WaitForSingleObject(stopEvent, waitMs) == WAIT_OBJECT_0;
}

}  // namespace

ExitCode RunHost(const Options& options, HANDLE stopEvent)
{
    const ComApartment apartment;
    // Every file given is read and checked before the provider exists, so a refusal comes first.
    const Configuration configuration = LoadConfiguration(options.config);
    std::optional<Scenario> scenario;
    if (!options.scenario.empty()) {
        scenario = LoadScenario(options.scenario);
    }
    if (!options.replay.empty()) {
        if (!scenario) {
            scenario.emplace();
        }
        scenario->steps.emplace_back(ReplayStep{options.replay, {}});
    }
    if (scenario) {
        ReadEventFiles(*scenario);
    }

    // Declared in this order so they go in reverse: subscriptions, provider, then our objects.
    // The logger prints the levels asked for; while it watches the subscriptions it keeps
    // the lines, info included (see CreatedMetric).
    const ULONG printed = options.logLevels;
    ComPtr<HostLogger> logger = Adopt(
        new HostLogger(printed, false, [printed](LogLevel level, std::wstring_view category, std::wstring_view text) {
            if ((printed & LevelBit(level)) != 0) {
                PrintLogLine(level, category, text);
            }
        }));
    ComPtr<HostValueSink> sink = Adopt(new HostValueSink());
    ComPtr<HostContext> context = Adopt(new HostContext());

    const auto provider = options.dll.empty() ? ProviderInstance::CreateByProgId(options.progId)
                                              : ProviderInstance::CreateFromDll(options.dll);
    HRESULT result = provider->Get()->SetHostInterfaces(logger.Get(), context.Get());
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed,
                        L"the provider refused the host's logger: " + DescribeError(static_cast<DWORD>(result)));
    }

    std::unique_ptr<SimulatorControls> simulator;
    if (scenario) {
        simulator = std::make_unique<SimulatorControls>();
        AddChannels(*simulator, *scenario);
    }

    bool stopped = false;
    bool queryFailed = false;
    std::optional<HostError> malformed;  // an event file's fault, reported after the final query
    {
        Subscriptions subscriptions(provider->Get());
        {
            // After the scenario's channels exist, as the metrics will find them.
            EventSourceCheck check;
            std::vector<std::wstring> checked;
            logger->SetLevels(printed | LevelBit(LogLevel::Info));
            logger->Keep(true);
            for (const MetricConfig& metric : configuration.metrics) {
                subscriptions.Subscribe(metric);
                // A name subscribed again keeps its first configuration.
                if (std::find(checked.begin(), checked.end(), metric.name) != checked.end()) {
                    continue;
                }
                checked.push_back(metric.name);
                for (const std::wstring& warning : check.Check(metric, CreatedMetric(*logger.Get(), metric.name))) {
                    WriteErr(L"zeph-host: warning: " + warning + L"\n");
                }
            }
            if (const auto note = check.UnansweredNote()) {
                WriteErr(L"zeph-host: note: " + *note + L"\n");
            }
            logger->Keep(false);
            logger->Clear();
            logger->SetLevels(printed);
        }
        Querier querier(provider->Get(), sink.Get(), DistinctNames(configuration), options.json);

        if (scenario) {
            ScenarioPlayer player(
                *simulator, stopEvent, [&] { querier.QueryAll(); }, SubscribedChannels(configuration));
            try {
                stopped = !player.Play(*scenario);
            } catch (const HostError& error) {
                if (error.Code() != ExitCode::ScenarioInvalid) {
                    throw;
                }
                malformed = error;
            }
        }
        if (malformed) {
            // What was replayed before the fault is still reported.
            querier.QueryAll();
        } else if (!stopped && options.once) {
            if (simulator && !simulator->WaitForDeliveries(kDeliveryWaitMs)) {
                WriteErr(L"zeph-host: the simulated event log's deliveries did not finish; querying anyway\n");
            }
            querier.QueryAll();
        } else if (!stopped) {
            do {
                querier.QueryAll();
            } while (!Stopped(stopEvent, options.intervalSeconds * 1000));
            stopped = true;
        }
        queryFailed = querier.AnyFailed();
        if (stopped) {
            WriteErr(L"zeph-host: stopping: unsubscribing every metric and releasing the provider\n");
        }
    }
    provider->Release();
    logger.Reset();
    sink.Reset();
    context.Reset();
    if (const long kept = LiveHostObjects(); kept != 0) {
        WriteErr(L"zeph-host: warning: the released provider still holds " + std::to_wstring(kept) +
                 L" of the host's objects\n");
    }
    if (malformed) {
        throw *malformed;
    }
    return queryFailed ? ExitCode::RunFailed : ExitCode::Ok;
}

}  // namespace zeph::host
