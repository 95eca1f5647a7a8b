// Creates the metric class that belongs to a metric name.
#pragma once

#include "metric/metric.h"
#include "provider/metric_names.h"

#include <agent.h>
#include <wrl/client.h>

#include <functional>
#include <memory>

namespace zeph {

// (name as the host spelled it, logger, host context) -> metric, or empty for
// a name it does not know. The two references are the factory's to release.
using MetricFactoryFunction =
    std::function<std::shared_ptr<CMetric>(const wchar_t* name, Microsoft::WRL::ComPtr<IProviderLogger> logger,
                                           Microsoft::WRL::ComPtr<IProviderHostContext> hostContext)>;

// Knows the two metric names, compared without regard to letter case.
std::shared_ptr<CMetric> MetricFactory(const wchar_t* name, Microsoft::WRL::ComPtr<IProviderLogger> logger,
                                       Microsoft::WRL::ComPtr<IProviderHostContext> hostContext);

// True when name is known, in any letter case: same length and equal ignoring case.
[[nodiscard]] bool IsMetricName(const wchar_t* name, const wchar_t* known) noexcept;

}  // namespace zeph
