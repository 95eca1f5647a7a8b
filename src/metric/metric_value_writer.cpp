#include "metric/metric_value_writer.h"

#include "win/com_strings.h"

namespace zeph {

namespace {

HRESULT Write(IMetricValueSink* sink, std::wstring_view key, std::wstring_view name, ScopedVariant& value)
{
    const unique_bstr keyText = MakeBstr(key);
    const unique_bstr nameText = MakeBstr(name);
    return sink->WriteMetricValue(keyText.get(), nameText.get(), value.get());
}

}  // namespace

HRESULT WriteMetricString(IMetricValueSink* sink, std::wstring_view key, std::wstring_view name, std::wstring_view text)
{
    if (sink == nullptr) {
        return E_POINTER;
    }
    ScopedVariant value;
    value.SetString(text);
    return Write(sink, key, name, value);
}

HRESULT WriteMetricUInt64(IMetricValueSink* sink, std::wstring_view key, std::wstring_view name, ULONGLONG number)
{
    if (sink == nullptr) {
        return E_POINTER;
    }
    ScopedVariant value;
    value.SetUInt64(number);
    return Write(sink, key, name, value);
}

}  // namespace zeph
