// The host's value sink (IMetricValueSink) as zeph-host, the tests and the
// benchmarks hand it to the provider. It counts every write; while keeping is on
// (the default) it also keeps each one with a copy of its value (Writes, Take),
// values of types other than VT_BSTR and VT_UI8 changed to text. A policy may
// refuse chosen writes with a chosen HRESULT; refused writes are kept too.
// Ownership: reference counted; the creator's reference is taken with Adopt.
// Failure: a null value is answered with E_POINTER, a write it cannot keep with
// E_OUTOFMEMORY. Threads: any.
#pragma once

#include "support/host_object.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace zeph {

struct SinkWrite {
    std::wstring key;
    std::wstring name;  // the instance the value is for
    VARTYPE type = VT_EMPTY;
    std::wstring text;      // VT_BSTR values, and other types changed to text
    ULONGLONG number = 0;   // VT_UI8 values
    HRESULT result = S_OK;  // what the sink answered
};

class HostValueSink final : public HostDispatchObject<IMetricValueSink> {
public:
    // Decides each write's result from (key, name); by default every write is accepted.
    using Policy = std::function<HRESULT(const std::wstring& key, const std::wstring& name)>;

    explicit HostValueSink(bool keep = true) : keep_(keep) {}

    void SetPolicy(Policy policy);
    // Refuses every write with this key (and, when given, this name).
    void Refuse(const std::wstring& key, HRESULT result, const std::wstring& name = {});

    std::vector<SinkWrite> Writes() const;
    std::vector<SinkWrite> Accepted() const;
    std::vector<SinkWrite> Take();  // the writes kept since the last Take or Clear, in order
    void Clear();
    LONG64 Count() const { return count_; }  // every write since the sink was made

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved2() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved3() override { return E_NOTIMPL; }
    STDMETHODIMP WriteMetricValue(BSTR key, BSTR name, VARIANT* value) override;

private:
    const bool keep_;
    std::atomic<LONG64> count_{0};
    mutable std::mutex mutex_;
    Policy policy_;
    std::vector<SinkWrite> writes_;
};

}  // namespace zeph
