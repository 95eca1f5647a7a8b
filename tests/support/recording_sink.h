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
    std::wstring text;         // VT_BSTR values
    ULONGLONG number = 0;      // VT_UI8 values
    HRESULT result = S_OK;     // what the sink answered
};

class RecordingSink final : public TestDispatchObject<IMetricValueSink> {
public:
    // Decides each write's result from (key, name); default accepts everything.
    using Policy = std::function<HRESULT(const std::wstring& key, const std::wstring& name)>;
    void SetPolicy(Policy policy);
    // Refuses every write with this key (and, when given, this name).
    void Refuse(const std::wstring& key, HRESULT result, const std::wstring& name = {});

    std::vector<SinkWrite> Writes() const;
    std::vector<SinkWrite> Accepted() const;
    void Clear();

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved2() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved3() override { return E_NOTIMPL; }
    STDMETHODIMP WriteMetricValue(BSTR key, BSTR name, VARIANT* value) override;

private:
    mutable std::mutex mutex_;
    Policy policy_;
    std::vector<SinkWrite> writes_;
};

}  // namespace zeph::test
