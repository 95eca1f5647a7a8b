// The host's side of the provider's interfaces: a logger that prints the levels
// asked for, a value sink that collects what one query writes, and the host
// context (no methods). Logger and sink may be called from any thread.
#pragma once

#include "host_com_object.h"
#include "options.h"

#include <agent.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace zeph::host {

// Prints each enabled line to standard error as "hh:mm:ss.mmm [level] category: text";
// further lines of a multi-line text are indented.
class ConsoleLogger final : public HostDispatchObject<IProviderLogger> {
public:
    explicit ConsoleLogger(ULONG levels) : levels_(levels) {}

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP GetCategoryLevels(LPCWSTR category, ULONG* levels) override;
    STDMETHODIMP LogError(BSTR category, BSTR text) override { return Print(kLevelError, L"error", category, text); }
    STDMETHODIMP LogWarning(BSTR category, BSTR text) override
    {
        return Print(kLevelWarning, L"warning", category, text);
    }
    STDMETHODIMP LogInfo(BSTR category, BSTR text) override { return Print(kLevelInfo, L"info", category, text); }

    // The provider takes an unknown metric name with success and without a word; only its
    // info line "created metric '...'." tells a name it took. While watching, the provider
    // is told info is on, and info lines not asked for are read and not printed.
    void WatchCreations(bool watch) { watching_ = watch; }
    bool Created(const std::wstring& name);

private:
    HRESULT Print(ULONG level, const wchar_t* levelName, BSTR category, BSTR text);

    const ULONG levels_;
    std::atomic<bool> watching_{false};
    std::mutex createdMutex_;
    std::vector<std::wstring> created_;
};

// One value as the sink received it.
struct MetricValue {
    std::wstring key;
    std::wstring instance;  // the name argument of WriteMetricValue
    VARTYPE type = VT_EMPTY;
    std::wstring text;     // VT_BSTR, or other types changed to text
    ULONGLONG number = 0;  // VT_UI8
};

// Accepts every value and keeps it until Take.
class ValueSink final : public HostDispatchObject<IMetricValueSink> {
public:
    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved2() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved3() override { return E_NOTIMPL; }
    STDMETHODIMP WriteMetricValue(BSTR key, BSTR name, VARIANT* value) override;

    // The values written since the last Take, in write order.
    std::vector<MetricValue> Take();

private:
    std::mutex mutex_;
    std::vector<MetricValue> values_;
};

class HostContext final : public HostObject<IProviderHostContext> {};

}  // namespace zeph::host
