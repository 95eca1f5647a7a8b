#include "provider/metric_factory.h"

#include "appcrash/app_crash_metric.h"
#include "layering/quillon_metric.h"

#include <cwchar>

namespace zeph {

bool IsMetricName(const wchar_t* name, const wchar_t* known) noexcept
{
    const size_t length = std::wcslen(known);
    return std::wcslen(name) == length && _wcsnicmp(name, known, length) == 0;
}

// Metrics are held with a reference-count block of their own, apart from the
// object, so the object's memory goes as soon as its last owner does.
std::shared_ptr<CMetric> MetricFactory(const wchar_t* name, Microsoft::WRL::ComPtr<IProviderLogger> logger,
                                       Microsoft::WRL::ComPtr<IProviderHostContext> hostContext)
{
    if (IsMetricName(name, kQuillonMetricName)) {
        return std::shared_ptr<CMetric>(new CQuillonMetric(name, logger.Get(), hostContext.Get()));
    }
    if (IsMetricName(name, kAppCrashMetricName)) {
        return std::shared_ptr<CMetric>(new CAppCrashMetric(name, logger.Get(), hostContext.Get()));
    }
    return nullptr;
}

}  // namespace zeph
