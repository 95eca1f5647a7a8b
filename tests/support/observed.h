// A host object that tells the test of every AddRef and Release it gets, before
// counting it: for tests that check the order of reference changes, or what the
// DLL answers while a reference goes.
#pragma once

#include <windows.h>

#include <functional>
#include <utility>

namespace zeph::test {

template <typename HostObject>
class Observed final : public HostObject {
public:
    using Observer = std::function<void(const wchar_t* call)>;
    template <typename... Args>
    explicit Observed(Observer observer, Args&&... args)
        : HostObject(std::forward<Args>(args)...), observer_(std::move(observer))
    {
    }

    STDMETHODIMP_(ULONG) AddRef() override
    {
        observer_(L"AddRef");
        return HostObject::AddRef();
    }
    STDMETHODIMP_(ULONG) Release() override
    {
        observer_(L"Release");
        return HostObject::Release();
    }

private:
    Observer observer_;
};

}  // namespace zeph::test
