#include "provider/provider.h"

#include "metric/logging.h"
#include "win/hresult.h"

namespace zeph {

namespace {

constexpr wchar_t kCreatedMetric[] = L"created metric '%s'.";
constexpr wchar_t kSubscribeFailed[] = L"Failed to subscribe metric '%s'.";
constexpr wchar_t kSubscribed[] = L"Subscribed from metric '%s'.";
constexpr wchar_t kUnsubscribed[] = L"Unsubscribed from metric '%s'.";
constexpr wchar_t kUnsubscribedAll[] = L"Unsubscribed all metrics.";
constexpr wchar_t kNotSubscribed[] = L"Metric '%s' should be queried from internal metric.";

// Takes the new reference, stores it, and only then lets the old one go, so a
// host whose old and new objects depend on each other never sees one destroyed
// while it is handed over. (A plain ComPtr assignment releases first.)
template <typename Interface>
void ReplaceReference(Microsoft::WRL::ComPtr<Interface>& stored, Interface* replacement) noexcept
{
    if (stored.Get() == replacement) {
        return;
    }
    Microsoft::WRL::ComPtr<Interface> previous;
    previous.Swap(stored);
    stored = replacement;
    previous.Reset();
}

}  // namespace

CProvider::CProvider() : factory_(MetricFactory) {}

CProvider::~CProvider() = default;

void CProvider::UseMetricFactory(MetricFactoryFunction factory)
{
    factory_ = std::move(factory);
}

STDMETHODIMP CProvider::SubscribeMetric(BSTR name, IUnknown* config)
{
    return ComBarrier([&]() -> HRESULT {
        if (name == nullptr || config == nullptr) {
            return E_INVALIDARG;
        }
        Microsoft::WRL::ComPtr<IXMLDOMElement> element;
        if (FAILED(config->QueryInterface(IID_PPV_ARGS(&element)))) {
            return E_INVALIDARG;
        }
        const std::wstring key(name);
        if (metrics_.find(key) != metrics_.end()) {
            return S_OK;  // already subscribed: the first configuration stays
        }
        std::shared_ptr<CMetric> metric = factory_(name, logger_, hostContext_);
        if (!metric) {
            return S_OK;  // a name we do not provide
        }
        Log(logger_.Get(), LogLevel::Info, kCreatedMetric, name);
        const HRESULT subscribed = metric->Subscribe(element.Get());
        if (FAILED(subscribed)) {
            LogFailure(logger_.Get(), subscribed, kSubscribeFailed, name);
            return subscribed;
        }
        // The table's entry is made before the line that announces it, so
        // that an allocation failure leaves neither the line nor the entry.
        MetricTable entry;
        entry.emplace(key, std::move(metric));
        Log(logger_.Get(), LogLevel::Info, kSubscribed, name);
        metrics_.insert(entry.extract(entry.begin()));
        return S_OK;
    });
}

STDMETHODIMP CProvider::UnsubscribeMetric(BSTR name)
{
    return ComBarrier([&]() -> HRESULT {
        if (name == nullptr) {
            return E_INVALIDARG;
        }
        const auto found = metrics_.find(name);
        if (found == metrics_.end()) {
            return S_OK;
        }
        // The metric leaves the table whatever its closing says: the host asked for it gone.
        (void)found->second->Unsubscribe();
        metrics_.erase(found);
        Log(logger_.Get(), LogLevel::Info, kUnsubscribed, name);
        return S_OK;
    });
}

STDMETHODIMP CProvider::UnsubscribeAllMetrics()
{
    return ComBarrier([&]() -> HRESULT {
        for (const auto& [name, metric] : metrics_) {
            (void)metric->Unsubscribe();  // as in UnsubscribeMetric
        }
        metrics_.clear();
        Log(logger_.Get(), LogLevel::Info, kUnsubscribedAll);
        return S_OK;
    });
}

HRESULT CProvider::Reserved() noexcept
{
    return S_OK;
}

STDMETHODIMP CProvider::Reserved1()
{
    return Reserved();
}
STDMETHODIMP CProvider::Reserved2()
{
    return Reserved();
}
STDMETHODIMP CProvider::Reserved3()
{
    return Reserved();
}
STDMETHODIMP CProvider::Reserved4()
{
    return Reserved();
}
STDMETHODIMP CProvider::Reserved5()
{
    return Reserved();
}
STDMETHODIMP CProvider::Reserved6()
{
    return Reserved();
}

STDMETHODIMP CProvider::QueryMetric(BSTR name, LONG_PTR context, IUnknown* sink)
{
    return ComBarrier([&]() -> HRESULT {
        // A sink without IMetricValueSink is passed on as a null sink.
        Microsoft::WRL::ComPtr<IMetricValueSink> typedSink;
        if (sink != nullptr) {
            sink->QueryInterface(IID_PPV_ARGS(&typedSink));
        }
        return QueryMetricToSink(name, context, typedSink.Get());
    });
}

STDMETHODIMP CProvider::SetHostInterfaces(IProviderLogger* logger, IProviderHostContext* hostContext)
{
    return ComBarrier([&]() -> HRESULT {
        if (logger == nullptr || hostContext == nullptr) {
            return E_INVALIDARG;
        }
        ReplaceReference(logger_, logger);
        ReplaceReference(hostContext_, hostContext);
        return S_OK;
    });
}

STDMETHODIMP CProvider::QueryMetricToSink(BSTR name, LONG_PTR context, IMetricValueSink* sink)
{
    return ComBarrier([&]() -> HRESULT {
        if (name == nullptr) {
            return E_INVALIDARG;
        }
        const auto found = metrics_.find(name);
        if (found == metrics_.end()) {
            Log(logger_.Get(), LogLevel::Info, kNotSubscribed, name);
            return S_OK;
        }
        // Held for the call, so the metric outlives it whatever the sink does.
        const std::shared_ptr<CMetric> metric = found->second;
        return metric->CollectMetric(sink, context);
    });
}

}  // namespace zeph
