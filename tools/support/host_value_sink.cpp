#include "support/host_value_sink.h"

#include "win/com_strings.h"

#include <oleauto.h>

#include <new>
#include <utility>

namespace zeph {

namespace {

std::wstring Text(BSTR text)
{
    return text != nullptr ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
}

}  // namespace

void HostValueSink::SetPolicy(Policy policy)
{
    std::lock_guard lock(mutex_);
    policy_ = std::move(policy);
}

void HostValueSink::Refuse(const std::wstring& key, HRESULT result, const std::wstring& name)
{
    SetPolicy([=](const std::wstring& k, const std::wstring& n) {
        return (k == key && (name.empty() || n == name)) ? result : S_OK;
    });
}

std::vector<SinkWrite> HostValueSink::Writes() const
{
    std::lock_guard lock(mutex_);
    return writes_;
}

std::vector<SinkWrite> HostValueSink::Accepted() const
{
    std::vector<SinkWrite> accepted = Writes();
    std::erase_if(accepted, [](const SinkWrite& write) { return FAILED(write.result); });
    return accepted;
}

std::vector<SinkWrite> HostValueSink::Take()
{
    std::lock_guard lock(mutex_);
    return std::exchange(writes_, {});
}

void HostValueSink::Clear()
{
    std::lock_guard lock(mutex_);
    writes_.clear();
}

STDMETHODIMP HostValueSink::WriteMetricValue(BSTR key, BSTR name, VARIANT* value)
{
    ++count_;
    if (value != nullptr && !keep_) {
        return S_OK;
    }
    const HostBookkeeping bookkeeping;  // only where the sink allocates: the benchmarks count its cost
    try {
        if (value == nullptr) {
            ReportContractBreach(L"WriteMetricValue was called without a value");
            return E_POINTER;
        }
        SinkWrite write;
        write.key = Text(key);
        write.name = Text(name);
        write.type = V_VT(value);
        if (V_VT(value) == VT_BSTR) {
            write.text = Text(V_BSTR(value));
        } else if (V_VT(value) == VT_UI8) {
            write.number = V_UI8(value);
        } else {
            ScopedVariant copy;
            if (SUCCEEDED(::VariantChangeType(copy.get(), value, VARIANT_ALPHABOOL, VT_BSTR))) {
                write.text = Text(V_BSTR(copy.get()));
            }
        }
        std::lock_guard lock(mutex_);
        write.result = policy_ ? policy_(write.key, write.name) : S_OK;
        writes_.push_back(write);
        return write.result;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

}  // namespace zeph
