// Every allocation of every entry point failed in turn. Each entry point runs
// again and again with the 1st, 2nd, 3rd ... allocation of the thread under
// test failing (the host's thread for COM methods, the event log's delivery
// thread for events) until a run reaches no failure. Every run checks the
// result the host gets, that the metric works again once allocation does,
// that the crash pending before is reported exactly once, that every host
// reference and event log handle comes back, and that no block outlives it.
#include "appcrash/app_crash_metric.h"
#include "com/class_factory.h"
#include "com/com_object.h"
#include "com/type_info.h"
#include "config_element.h"
#include "layering_env.h"
#include "machine_name.h"
#include "provider/provider.h"
#include "support/host_logger.h"
#include "support/host_value_sink.h"
#include "simulated_event_log.h"
#include "win/com_strings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace {

// The hook: this executable's global allocation functions (the provider's core
// is linked in statically) and its imports of the system's. Armed, they count
// the allocations of the thread under test and fail the chosen one.
enum class Target { None, ThisThread, OtherThreads };
std::atomic<Target> g_target{Target::None};
std::atomic<DWORD> g_thread{0};
std::atomic<long> g_counted{0};
std::atomic<long> g_failAt{0};
std::atomic<long> g_live{0};  // blocks not yet freed, on every thread

bool FailsHere() noexcept
{
    const Target target = g_target.load();
    return target != Target::None && zeph::t_inHostObject == 0 &&
           (::GetCurrentThreadId() == g_thread.load()) == (target == Target::ThisThread) && ++g_counted == g_failAt;
}

void* Allocate(std::size_t size) noexcept
{
    if (FailsHere()) {
        return nullptr;
    }
    void* block = std::malloc(size == 0 ? 1 : size);
    g_live += block != nullptr ? 1 : 0;
    return block;
}

void Free(void* block) noexcept
{
    g_live -= block != nullptr ? 1 : 0;
    std::free(block);
}

// The system allocations the provider makes itself (BSTRs, its own heap's
// blocks) count too: this executable's import slots of them, known by the
// address the loader put there, are redirected.
template <typename Function>
Function RedirectImport(const char* module, const char* name, Function replacement)
{
    const auto target = reinterpret_cast<ULONG_PTR>(::GetProcAddress(::GetModuleHandleA(module), name));
    auto* base = reinterpret_cast<BYTE*>(::GetModuleHandleW(nullptr));
    const auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    const auto* headers = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const DWORD imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto* dll = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports); dll->Name != 0; ++dll) {
        for (auto* slot = reinterpret_cast<IMAGE_THUNK_DATA*>(base + dll->FirstThunk); slot->u1.Function != 0; ++slot) {
            if (target != 0 && slot->u1.Function == target) {
                DWORD protection = 0;
                ::VirtualProtect(&slot->u1.Function, sizeof(slot->u1.Function), PAGE_READWRITE, &protection);
                const auto original = reinterpret_cast<Function>(slot->u1.Function);
                slot->u1.Function = reinterpret_cast<ULONG_PTR>(replacement);
                ::VirtualProtect(&slot->u1.Function, sizeof(slot->u1.Function), protection, &protection);
                return original;
            }
        }
    }
    return nullptr;
}

decltype(&::SysAllocStringLen) g_sysAllocStringLen = nullptr;
decltype(&::HeapAlloc) g_heapAlloc = nullptr;
BSTR WINAPI CountedSysAllocStringLen(const OLECHAR* text, UINT length)
{
    return FailsHere() ? nullptr : g_sysAllocStringLen(text, length);
}
LPVOID WINAPI CountedHeapAlloc(HANDLE heap, DWORD flags, SIZE_T size)
{
    return FailsHere() ? nullptr : g_heapAlloc(heap, flags, size);
}

}  // namespace

void* operator new(std::size_t size)
{
    void* block = Allocate(size);
    return block != nullptr ? block : throw std::bad_alloc();
}
void* operator new[](std::size_t size)
{
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void operator delete(void* block) noexcept
{
    Free(block);
}
void operator delete[](void* block) noexcept
{
    Free(block);
}
void operator delete(void* block, std::size_t) noexcept
{
    Free(block);
}
void operator delete[](void* block, std::size_t) noexcept
{
    Free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept
{
    Free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept
{
    Free(block);
}

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;
using Values = std::vector<std::wstring>;

ULONG ReferencesOf(IUnknown* object)
{
    object->AddRef();
    return object->Release();
}

// Read before HKEY_LOCAL_MACHINE is redirected; the redirected key gets a copy
// so crash details keep their host part.
const std::wstring kMachineName = MachineName();

template <typename Run>
HRESULT Armed(Target target, Run run)
{
    g_counted = 0;
    g_thread = ::GetCurrentThreadId();
    g_target = target;
    const HRESULT result = run();
    g_target = Target::None;
    return result;
}

constexpr wchar_t kCrashes[] = L"ZephAllocCrashes";
constexpr wchar_t kFresh[] = L"ZephAllocFresh";  // a second crash metric's channel
constexpr wchar_t kLayering[] = L"ZephAllocLayering";
constexpr wchar_t kMounts[] = L"MOUNTED-READ;C:\\T\\one.vhdx;id-1\r\nMOUNTED-READ;C:\\T\\two.vhdx;id-2\r\n";
const ULONGLONG kStep[] = {FileTimeOf(2025, 7, 1, 8, 0, 0), FileTimeOf(2025, 7, 1, 8, 0, 10, 5),
                           FileTimeOf(2025, 7, 1, 8, 0, 20, 50), FileTimeOf(2025, 7, 1, 8, 0, 30, 500)};

std::wstring Detail(const std::wstring& message)
{
    return message + L"<br />Crash Time: 2025-06-30 12:34:56<br />Host Name: " + kMachineName;
}

// A layering query's accepted writes after a log-on: its moments (as steps;
// none without a log-on), the manager, and the two Tesseras copies times.
Values CycleValues(std::vector<int> steps, int copies = 1)
{
    const wchar_t* const keys[] = {L"logon", L"logon_response", L"volumes_ready", L"all_done"};
    Values values;
    for (size_t i = 0; i < steps.size(); ++i) {
        values.push_back(std::wstring(L"quillon|") + keys[i] + L"_timestamp quillon " +
                         std::to_wstring(UnixMillisecondsOf(kStep[steps[i]])));
    }
    values.push_back(L"quillon|mgr quillon|mgr manager.zeph.test");
    for (int copy = 0; copy < copies; ++copy) {
        if (copy == 0) {
            values.push_back(L"quillon|instances quillon|instances true");
        }
        values.insert(values.end(),
                      {L"quillon|instances|* id-1 C:\\T\\one.vhdx", L"quillon|instances|* id-2 C:\\T\\two.vhdx"});
    }
    return values;
}

struct Configs {
    ComPtr<IXMLDOMElement> crashes = MakeMetricConfig(kCrashes, L"*");
    ComPtr<IXMLDOMElement> fresh = MakeMetricConfig(kFresh, L"*");
    ComPtr<IXMLDOMElement> layering = MakeMetricConfig(kLayering, L"*");
};

// A provider as the host sets it up: the crash metric subscribed, one crash pending.
struct Session {
    Session(ServiceInstall& installed, const Configs& configs) : service(installed), config(configs)
    {
        EXPECT_EQ(provider->SetHostInterfaces(logger.Get(), context.Get()), S_OK);
        EXPECT_EQ(provider->SubscribeMetric(crash.get(), config.crashes.Get()), S_OK);
        Crash(kCrashes, L"pending 1");
        service.WriteLog(L"earlier\r\n");
    }

    HRESULT Crash(const wchar_t* channel, const wchar_t* message)
    {
        WriteEvent(channel, kCrashPublisher, 1000, FileTimeOf(2025, 6, 30, 12, 34, 56), message);
        WaitForDeliveries();
        return S_OK;
    }
    HRESULT Layering(const std::wstring& message, ULONGLONG time)
    {
        WriteEvent(kLayering, L"drovesvc", 3, time, message);
        WaitForDeliveries();
        return S_OK;
    }
    HRESULT Query(BSTR name) { return provider->QueryMetric(name, 0, sink.Get()); }
    size_t Reported(const std::wstring& detail) const
    {
        const auto writes = sink->Accepted();
        return std::count_if(writes.begin(), writes.end(), [&](const SinkWrite& w) { return w.text == detail; });
    }
    bool Logged(const std::wstring& text) const { return logger->Has(LogLevel::Info, text); }

    // A log-on (the step at armedStep delivered armed); the service log gets
    // the manager's answer once the log-on is in.
    void Cycle(int armedStep, bool mountsInEvent)
    {
        const std::wstring messages[] = {
            L"User is logging in", std::wstring(L"Response 200 from Manager\r\n") + (mountsInEvent ? kMounts : L""),
            L"New volume event (mounted): \\\\?\\Volume{1} (VolumeType 2)", L"All volumes finished processing"};
        for (int step = 0; step < 4; ++step) {
            const auto deliver = [&] { return Layering(messages[step], kStep[step]); };
            step == armedStep ? Armed(Target::OtherThreads, deliver) : deliver();
            if (step == 0) {
                service.AppendLog(std::wstring(L"Manager status 200 response\r\n") + kMounts);
            }
        }
    }
    // The layering metric reports one of the outcomes.
    void ExpectLayering(const std::vector<Values>& outcomes)
    {
        sink->Clear();
        EXPECT_EQ(Query(layering.get()), S_OK);
        Values values;
        for (const SinkWrite& write : sink->Accepted()) {
            values.push_back(write.key + L" " + write.name + L" " +
                             (write.type == VT_UI8 ? std::to_wstring(write.number) : write.text));
        }
        EXPECT_NE(std::find(outcomes.begin(), outcomes.end(), values), outcomes.end()) << values.size() << " values";
    }
    // A whole log-on after a log-off is reported in full.
    void ExpectLayeringWorks()
    {
        Layering(L"User is logging off", kStep[0]);
        service.WriteLog(L"earlier\r\n");
        Cycle(-1, true);
        ExpectLayering({CycleValues({0, 1, 2, 3})});
    }

    // The pending crash reported pendingReports times in all; every reference and handle given back.
    void Finish(size_t pendingReports)
    {
        Query(crash.get());
        Query(crash.get());
        EXPECT_EQ(Reported(Detail(L"pending 1")), pendingReports);
        provider.Reset();
        created.Reset();
        for (IUnknown* host : std::initializer_list<IUnknown*>{logger.Get(), context.Get(), sink.Get()}) {
            EXPECT_EQ(ReferencesOf(host), 1u);
        }
        const EVT_SIM_COUNTERS now = Counters();
        for (int kind : {EVT_SIM_KIND_SUBSCRIPTION, EVT_SIM_KIND_RENDER_CONTEXT}) {
            EXPECT_EQ(now.opened[kind] - start.opened[kind], now.closed[kind] - start.closed[kind]) << kind;
        }
        EXPECT_EQ(now.doubleCloses + now.unknownCloses, start.doubleCloses + start.unknownCloses);
    }

    ServiceInstall& service;
    const Configs& config;
    const EVT_SIM_COUNTERS start = Counters();
    const ComPtr<HostLogger> logger = Adopt(new HostLogger(0x7));
    const ComPtr<HostContext> context = Adopt(new HostContext());
    const ComPtr<HostValueSink> sink = Adopt(new HostValueSink());
    ComPtr<IZephDataProvider> provider = [] {
        ComPtr<IZephDataProvider> created;
        EXPECT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&created)), S_OK);
        return created;
    }();
    ComPtr<IZephDataProvider> created;
    const unique_bstr crash = MakeBstr(kAppCrashMetricName), other = MakeBstr(L"EVENTLOG|eventlog_appcrash"),
                      layering = MakeBstr(kQuillonMetricName);
};

using Step = std::function<void(Session&)>;
using Run = std::function<HRESULT(Session&)>;
using After = std::function<void(Session&, HRESULT)>;

struct EntryPoint {
    const char* name;
    Step setup;
    Run run;      // arms the hook around the entry point
    After after;  // allocation works again
    size_t pendingReports = 1;
};

Run OnHostThread(Run call)
{
    return [=](Session& s) { return Armed(Target::ThisThread, [&] { return call(s); }); };
}
Run OnDeliveryThread(Run deliver)
{
    return [=](Session& s) { return Armed(Target::OtherThreads, [&] { return deliver(s); }); };
}
Run ArmedStep(int step, bool mountsInEvent)
{
    return [=](Session& s) { return s.Cycle(step, mountsInEvent), S_OK; };
}
// After a log-on whose step was delivered armed: the step applied, dropped
// whole, or (its message not formatted) handled with the message before it,
// as parsing handles any event whose message cannot be formatted.
After StepOutcomes(Values dropped, Values replayed)
{
    return [=](Session& s, HRESULT) {
        s.ExpectLayering({CycleValues({0, 1, 2, 3}), dropped, replayed});
        s.ExpectLayeringWorks();
    };
}
void NotSubscribed(Session& s, BSTR name)
{
    EXPECT_EQ(s.Query(name), S_OK);
    EXPECT_TRUE(s.Logged(L"Metric '" + std::wstring(name) + L"' should be queried from internal metric."));
}
void NotAnnounced(Session& s, BSTR name)  // and not subscribed
{
    EXPECT_FALSE(s.Logged(L"Subscribed from metric '" + std::wstring(name) + L"'."));
    NotSubscribed(s, name);
}
void SubscribeLayering(Session& s)
{
    EXPECT_EQ(s.provider->SubscribeMetric(s.layering.get(), s.config.layering.Get()), S_OK);
}
void LoggedOn(Session& s)
{
    SubscribeLayering(s), s.Cycle(-1, true);
}
void SecondPending(Session& s)
{
    s.Crash(kCrashes, L"pending 2");
}
void Nothing(Session&) {}
void SecondReported(Session& s, HRESULT)
{
    s.Query(s.crash.get());
    EXPECT_EQ(s.Reported(Detail(L"pending 2")), 1u);
}

std::vector<EntryPoint> EntryPoints()
{
    return {
        {"SubscribeMetric, crashes", Nothing,
         OnHostThread([](Session& s) { return s.provider->SubscribeMetric(s.other.get(), s.config.fresh.Get()); }),
         [](Session& s, HRESULT result) {
             if (FAILED(result)) {
                 return NotAnnounced(s, s.other.get());
             }
             s.Crash(kFresh, L"later");
             EXPECT_EQ(s.Query(s.other.get()), S_OK);
             EXPECT_EQ(s.Reported(Detail(L"later")), 1u);
         }},
        {"SubscribeMetric, layering", Nothing, OnHostThread([](Session& s) {
             return s.provider->SubscribeMetric(s.layering.get(), s.config.layering.Get());
         }),
         [](Session& s, HRESULT hr) { FAILED(hr) ? NotAnnounced(s, s.layering.get()) : s.ExpectLayeringWorks(); }},
        {"QueryMetric, crashes, two pending", SecondPending,
         OnHostThread([](Session& s) { return s.Query(s.crash.get()); }), SecondReported},
        {"QueryMetric, layering, log-on with Tesseras", LoggedOn,
         OnHostThread([](Session& s) { return s.Query(s.layering.get()); }),
         [](Session& s, HRESULT) {
             s.ExpectLayering({CycleValues({0, 1, 2, 3})});
         }},
        {"UnsubscribeMetric", SubscribeLayering,
         OnHostThread([](Session& s) { return s.provider->UnsubscribeMetric(s.layering.get()); }),
         [](Session& s, HRESULT) {
             EXPECT_EQ(s.provider->UnsubscribeMetric(s.layering.get()), S_OK);
             NotSubscribed(s, s.layering.get());
         }},
        {"UnsubscribeAllMetrics", SubscribeLayering,
         OnHostThread([](Session& s) { return s.provider->UnsubscribeAllMetrics(); }),
         [](Session& s, HRESULT) {
             EXPECT_EQ(s.provider->UnsubscribeAllMetrics(), S_OK);
             NotSubscribed(s, s.crash.get());
         },
         0},
        {"IClassFactory::CreateInstance", Nothing, OnHostThread([](Session& s) {
             return ClassFactory<CProvider>::Instance().CreateInstance(nullptr, IID_PPV_ARGS(&s.created));
         }),
         [](Session& s, HRESULT result) {
             ASSERT_EQ(s.created != nullptr, SUCCEEDED(result));
             if (s.created) {
                 EXPECT_EQ(s.created->SubscribeMetric(s.crash.get(), s.config.fresh.Get()), S_OK);
             }
         }},
        {"event: a crash metric's first crash",
         [](Session& s) { EXPECT_EQ(s.provider->SubscribeMetric(s.other.get(), s.config.fresh.Get()), S_OK); },
         OnDeliveryThread([](Session& s) { return s.Crash(kFresh, L"under test"); }),
         [](Session& s, HRESULT) {
             s.Crash(kFresh, L"later");
             EXPECT_EQ(s.Query(s.other.get()), S_OK);
             EXPECT_LE(s.Reported(Detail(L"under test")), 1u);
             EXPECT_EQ(s.Reported(Detail(L"later")), 1u);
             EXPECT_EQ(s.sink->Accepted().size(), s.Reported(Detail(L"under test")) + 2) << "flag and details";
         }},
        {"event: log-on", SubscribeLayering, ArmedStep(0, false), StepOutcomes(CycleValues({}, 0), CycleValues({}, 0))},
        {"event: manager response with Tesseras", SubscribeLayering, ArmedStep(1, true),
         StepOutcomes(CycleValues({0, 0, 2, 3}), CycleValues({1, 1, 2, 3}, 0))},
        {"event: volumes ready", SubscribeLayering, ArmedStep(2, true),
         StepOutcomes(CycleValues({0, 1, 1, 3}), CycleValues({0, 1, 1, 3}, 2))},
        {"event: all done, reading the service log", SubscribeLayering, ArmedStep(3, false),
         StepOutcomes(CycleValues({0, 1, 2, 2}, 0), CycleValues({0, 1, 3, 3}, 0))},
        {"event: log-off", LoggedOn,
         OnDeliveryThread([](Session& s) { return s.Layering(L"User is logging off", kStep[3]); }),
         [](Session& s, HRESULT) {
             s.ExpectLayering({CycleValues({}), CycleValues({0, 1, 2, 3})});
             s.ExpectLayeringWorks();
         }},
    };
}

// A library nobody registers: IDispatch then looks for the type information in
// the module file, which takes allocations; each method answers out of memory.
struct UnregisteredLibrary {
    static constexpr GUID kLibId = {};
    static constexpr WORD kMajor = 1;
    static constexpr WORD kMinor = 0;
};

class DispatchOnly final : public DispatchImpl<IProviderLogger, UnregisteredLibrary> {
public:
    STDMETHODIMP QueryInterface(REFIID, void** object) override { return *object = nullptr, E_NOINTERFACE; }
    STDMETHODIMP_(ULONG) AddRef() override { return 1; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP HostReserved1() override { return S_OK; }
    STDMETHODIMP GetCategoryLevels(LPCWSTR, ULONG*) override { return S_OK; }
    STDMETHODIMP LogError(BSTR, BSTR) override { return S_OK; }
    STDMETHODIMP LogWarning(BSTR, BSTR) override { return S_OK; }
    STDMETHODIMP LogInfo(BSTR, BSTR) override { return S_OK; }
};

TEST(AllocationFailureTest, DispatchWhileLoadingTypeInformationIsOutOfMemory)
{
    DispatchOnly object;
    ITypeInfo* info = nullptr;
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"LogError")};
    DISPID id = DISPID_UNKNOWN;
    DISPPARAMS none = {};
    g_failAt = 1;
    EXPECT_EQ(Armed(Target::ThisThread, [&] { return object.GetTypeInfo(0, LOCALE_USER_DEFAULT, &info); }),
              E_OUTOFMEMORY);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(
        Armed(Target::ThisThread, [&] { return object.GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id); }),
        E_OUTOFMEMORY);
    EXPECT_EQ(Armed(Target::ThisThread,
                    [&] {
                        return object.Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, nullptr, nullptr,
                                             nullptr);
                    }),
              E_OUTOFMEMORY);
}

TEST(AllocationFailureTest, EveryAllocationOfEveryEntryPointFailsCleanly)
{
    for (const wchar_t* channel : {kCrashes, kFresh, kLayering}) {
        ASSERT_EQ(::EvtSimAddChannel(channel), 0u);
    }
    ServiceInstall service;
    for (const wchar_t* key : {L"System\\CurrentControlSet\\Control\\ComputerName\\ComputerName",
                               L"System\\CurrentControlSet\\Control\\ComputerName\\ActiveComputerName"}) {
        service.Registry().SetString(key, L"ComputerName", kMachineName);
    }
    service.SetManager(L"manager.zeph.test:8443");
    g_sysAllocStringLen = RedirectImport("oleaut32.dll", "SysAllocStringLen", &CountedSysAllocStringLen);
    g_heapAlloc = RedirectImport("kernel32.dll", "HeapAlloc", &CountedHeapAlloc);
    ASSERT_TRUE(g_sysAllocStringLen && g_heapAlloc);
    const Configs configs;
    const ULONG configReferences = ReferencesOf(configs.crashes.Get());

    for (const EntryPoint& entry : EntryPoints()) {
        long failAt = 1;
        for (bool reached = true; reached && !::testing::Test::HasFailure(); ++failAt) {
            SCOPED_TRACE(std::string(entry.name) + ", allocation " + std::to_string(failAt) + " failing");
            g_failAt = failAt;
            const long liveBefore = g_live;
            {
                Session session(service, configs);
                entry.setup(session);
                const HRESULT result = entry.run(session);
                reached = g_counted >= failAt;
                EXPECT_TRUE(result == S_OK || (reached && result == E_OUTOFMEMORY)) << std::hex << result;
                entry.after(session, result);
                session.Finish(entry.pendingReports);
            }
            if (!::testing::Test::HasFailure()) {  // a failure's own record stays
                EXPECT_EQ(g_live.load(), liveBefore) << "blocks left behind";
            }
            EXPECT_EQ(ReferencesOf(configs.crashes.Get()), configReferences);
            ASSERT_LT(failAt, 2000);
        }
        if (!::testing::Test::HasFailure()) {
            std::printf("%-48s %3ld failure points\n", entry.name, failAt - 2);
        }
    }
}

}  // namespace
}  // namespace zeph
