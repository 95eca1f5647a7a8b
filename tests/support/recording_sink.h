// A host value sink that keeps every write (key, name, a copy of the value) and
// can refuse chosen writes with a chosen HRESULT. Refused writes are recorded too.
#pragma once

#include "test_com_object.h"

#include <agent.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace zeph::test {

struct SinkWrite {
    std::wstring key;
    std::wstring name;
    VARTYPE type = VT_EMPTY;
    std::wstring text;      // VT_BSTR values
    ULONGLONG number = 0;   // VT_UI8 values
    HRESULT result = S_OK;  // what the sink answered
};

class RecordingSink final : public TestDispatchObject<IMetricValueSink> {
public:
    // Decides each write's result from (key, name); by default every write is accepted.
    using Policy = std::function<HRESULT(const std::wstring& key, const std::wstring& name)>;
    void SetPolicy(Policy policy)
    {
        std::lock_guard lock(mutex_);
        policy_ = std::move(policy);
    }
    // Refuses every write with this key (and, when given, this name).
    void Refuse(const std::wstring& key, HRESULT result, const std::wstring& name = {})
    {
        SetPolicy([=](const std::wstring& k, const std::wstring& n) {
            return (k == key && (name.empty() || n == name)) ? result : S_OK;
        });
    }

    std::vector<SinkWrite> Writes() const
    {
        std::lock_guard lock(mutex_);
        return writes_;
    }
    std::vector<SinkWrite> Accepted() const
    {
        std::vector<SinkWrite> accepted = Writes();
        std::erase_if(accepted, [](const SinkWrite& write) { return FAILED(write.result); });
        return accepted;
    }
    void Clear()
    {
        std::lock_guard lock(mutex_);
        writes_.clear();
    }

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved2() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved3() override { return E_NOTIMPL; }
    STDMETHODIMP WriteMetricValue(BSTR key, BSTR name, VARIANT* value) override
    {
        const HostDoubleScope scope;
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

private:
    mutable std::mutex mutex_;
    Policy policy_;
    std::vector<SinkWrite> writes_;
};

}  // namespace zeph::test
