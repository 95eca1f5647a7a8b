#include "configuration.h"

namespace zeph::host {

namespace {

constexpr wchar_t kWhat[] = L"configuration file";
constexpr wchar_t kMetricTag[] = L"metric";

}  // namespace

Configuration LoadConfiguration(const std::wstring& path)
{
    Configuration configuration;
    configuration.document = LoadXmlFile(path, kWhat, ExitCode::ConfigMissing, ExitCode::ConfigMalformed);
    const std::wstring quoted = L"the configuration file '" + path + L"'";
    const auto root = RootElement(configuration.document.Get());
    for (const auto& element : ChildElements(root.Get())) {
        const std::wstring tag = TagName(element.Get());
        const size_t position = configuration.metrics.size() + 1;
        if (tag != kMetricTag) {
            throw HostError(ExitCode::ConfigMalformed,
                            quoted + L" has an element <" + tag + L"> where only <metric> may stand");
        }
        const auto name = Attribute(element.Get(), L"name");
        if (!name || name->empty()) {
            throw HostError(ExitCode::ConfigMalformed,
                            quoted + L": metric " + std::to_wstring(position) + L" has no name attribute");
        }
        configuration.metrics.push_back({*name, element});
    }
    if (configuration.metrics.empty()) {
        throw HostError(ExitCode::ConfigMalformed, quoted + L" has no <metric> element");
    }
    return configuration;
}

}  // namespace zeph::host
