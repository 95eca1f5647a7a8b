#include "metric_factory.h"

#include "quillon_metric.h"

#include <cwchar>

namespace zeph {

bool IsMetricName(const wchar_t* name, const wchar_t* known) noexcept
{
    const size_t length = std::wcslen(known);
    return std::wcslen(name) == length && _wcsnicmp(name, known, length) == 0;
}

std::shared_ptr<CMetric> MetricFactory(const wchar_t* name, Microsoft::WRL::ComPtr<IProviderLogger> logger,
                                       Microsoft::WRL::ComPtr<IProviderHostContext> hostContext)
{
    if (IsMetricName(name, kQuillonMetricName)) {
        return std::make_shared<CQuillonMetric>(name, logger.Get(), hostContext.Get());
    }
    if (IsMetricName(name, kAppCrashMetricName)) {
        return nullptr;  // the crash metric class is not built yet
    }
    (void)logger;
    (void)hostContext;
    return nullptr;
}

}  // namespace zeph
