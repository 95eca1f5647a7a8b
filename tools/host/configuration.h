// The host's configuration file: a root element (any name) whose children are
// <metric name="..."> elements. Each metric element goes to SubscribeMetric
// as it stands; the host does not look inside it.
#pragma once

#include "xml_file.h"

#include <string>
#include <vector>

namespace zeph::host {

struct MetricConfig {
    std::wstring name;
    ComPtr<IXMLDOMElement> element;
};

struct Configuration {
    ComPtr<IXMLDOMDocument> document;   // keeps the elements' document alive
    std::vector<MetricConfig> metrics;  // in file order
};

// Throws HostError: ConfigMissing, ConfigMalformed (not XML, an element other
// than <metric> under the root, a metric without a name, no metric at all).
Configuration LoadConfiguration(const std::wstring& path);

}  // namespace zeph::host
