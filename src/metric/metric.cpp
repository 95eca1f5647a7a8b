#include "metric/metric.h"

#include "metric/logging.h"
#include "win/com_strings.h"
#include "win/hresult.h"

namespace zeph {

namespace {

constexpr wchar_t kChannelProperty[] = L"channel";
constexpr wchar_t kQueryProperty[] = L"query";

constexpr wchar_t kPropertyNotFound[] = L"Property '%s' was not found in the configuration.";
constexpr wchar_t kPropertyReadFailed[] = L"Failed to retrieve property '%s' from the configuration.";

// The text of the child element named property: S_OK with the text, S_FALSE
// when there is no such child, or the failure of the lookup.
[[nodiscard]] HRESULT SelectPropertyText(IXMLDOMElement* config, const wchar_t* property, ScopedVariant& value)
{
    const unique_bstr query = MakeBstr(property);
    Microsoft::WRL::ComPtr<IXMLDOMNode> node;
    const HRESULT selected = config->selectSingleNode(query.get(), &node);
    if (selected != S_OK) {
        return selected;
    }
    Microsoft::WRL::ComPtr<IXMLDOMElement> element;
    const HRESULT isElement = node.As(&element);
    if (FAILED(isElement)) {
        return isElement;
    }
    unique_bstr text;
    element->get_text(text.put());
    value.SetString(text ? std::wstring_view(text.get(), ::SysStringLen(text.get())) : std::wstring_view());
    return S_OK;
}

}  // namespace

CMetric::CMetric(const wchar_t* name, IProviderLogger* logger, IProviderHostContext* hostContext)
    : name_(name), logger_(logger), hostContext_(hostContext)
{
}

CMetric::~CMetric()
{
    // Deliveries stop before the host pointers they may use are released.
    StopDeliveries();
}

HRESULT CMetric::Subscribe(IXMLDOMElement* config)
{
    HRESULT result = GetConfigProperty(config, kChannelProperty, channel_);
    if (FAILED(result)) {
        return result;
    }
    result = GetConfigProperty(config, kQueryProperty, query_);
    if (FAILED(result)) {
        return result;
    }
    // A channel or query the event log rejects is not an error of Subscribe:
    // the metric simply never receives events.
    (void)subscription_.Subscribe(channel_.c_str(), query_.c_str(), [this](EVT_HANDLE event, int action) {
        if (action != EvtSubscribeActionError) {
            ParseEventLog(event);
        }
    });
    return S_OK;
}

HRESULT CMetric::Unsubscribe()
{
    subscription_.Close();
    return S_OK;
}

HRESULT CMetric::GetConfigProperty(IXMLDOMElement* config, const wchar_t* property, std::wstring& target)
{
    ScopedVariant value;
    const HRESULT result = SelectPropertyText(config, property, value);
    if (result == S_OK) {
        target = V_BSTR(value.get());  // up to the first zero, as a C string
        return S_OK;
    }
    if (SUCCEEDED(result)) {
        Log(Logger(), LogLevel::Error, kPropertyNotFound, property);
        return HResultFromWin32(ERROR_NOT_FOUND);
    }
    LogFailure(Logger(), result, kPropertyReadFailed, property);
    return result;
}

}  // namespace zeph
