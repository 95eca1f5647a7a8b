#include "recording_sink.h"

namespace zeph::test {

void RecordingSink::SetPolicy(Policy policy)
{
    std::lock_guard lock(mutex_);
    policy_ = std::move(policy);
}

void RecordingSink::Refuse(const std::wstring& key, HRESULT result, const std::wstring& name)
{
    SetPolicy([=](const std::wstring& k, const std::wstring& n) {
        return (k == key && (name.empty() || n == name)) ? result : S_OK;
    });
}

std::vector<SinkWrite> RecordingSink::Writes() const
{
    std::lock_guard lock(mutex_);
    return writes_;
}

std::vector<SinkWrite> RecordingSink::Accepted() const
{
    std::vector<SinkWrite> accepted;
    for (const SinkWrite& write : Writes()) {
        if (SUCCEEDED(write.result)) {
            accepted.push_back(write);
        }
    }
    return accepted;
}

void RecordingSink::Clear()
{
    std::lock_guard lock(mutex_);
    writes_.clear();
}

STDMETHODIMP RecordingSink::WriteMetricValue(BSTR key, BSTR name, VARIANT* value)
{
    SinkWrite write;
    write.key.assign(key, ::SysStringLen(key));
    write.name.assign(name, ::SysStringLen(name));
    if (value != nullptr) {
        write.type = V_VT(value);
        if (V_VT(value) == VT_BSTR) {
            write.text.assign(V_BSTR(value), ::SysStringLen(V_BSTR(value)));
        } else if (V_VT(value) == VT_UI8) {
            write.number = V_UI8(value);
        }
    }
    std::lock_guard lock(mutex_);
    write.result = policy_ ? policy_(write.key, write.name) : S_OK;
    writes_.push_back(write);
    return write.result;
}

}  // namespace zeph::test
