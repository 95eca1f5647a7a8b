#include "layering_model.h"

namespace zeph::fuzz {

namespace {

// The agent's wordings, in the order they are tried; a second condition, when
// there is one, must hold anywhere in the message.
struct Wording {
    const wchar_t* prefix;
    const wchar_t* alsoContains;
    Moment moment;
};
constexpr Wording kWordings[] = {
    {L"User is logging in", nullptr, Moment::LogOn},
    {L"User is logging off", nullptr, Moment::LogOff},
    {L"Response 200 from Manager", nullptr, Moment::LogOnResponse},
    {L"Last volume loaded", nullptr, Moment::AllDone},
    {L"New volume event (mounted):", L"(VolumeType 2)", Moment::VolumesReady},
    {L"User is logging out", nullptr, Moment::LogOff},
    {L"Response received from Manager", L"LOGIN", Moment::LogOnResponse},
    {L"New volume finished processing", L"VolumeType: 2", Moment::VolumesReady},
    {L"All volumes finished processing", nullptr, Moment::AllDone},
};

constexpr wchar_t kMountToken[] = L"MOUNTED-READ;";
constexpr ULONGLONG kUnixEpochFileTime = 116444736000000000ull;

SinkWrite Text(const wchar_t* key, const std::wstring& name, const std::wstring& text)
{
    SinkWrite write;
    write.key = key;
    write.name = name;
    write.type = VT_BSTR;
    write.text = text;
    return write;
}

}  // namespace

Moment ClassifyMessage(const std::wstring& message)
{
    for (const Wording& wording : kWordings) {
        if (message.rfind(wording.prefix, 0) == 0 &&
            (wording.alsoContains == nullptr || message.find(wording.alsoContains) != std::wstring::npos)) {
            return wording.moment;
        }
    }
    return Moment::Other;
}

void AppendMountEntries(const std::wstring& text, size_t start, std::vector<Tessera>& tesseras)
{
    for (size_t token; (token = text.find(kMountToken, start)) != std::wstring::npos;) {
        const size_t path = token + std::size(kMountToken) - 1;
        const size_t separator = path < text.size() ? text.find(L';', path) : std::wstring::npos;
        const size_t lineEnd = separator == std::wstring::npos ? separator : text.find(L"\r\n", separator);
        if (lineEnd == std::wstring::npos) {
            return;
        }
        tesseras.push_back({text.substr(separator + 1, lineEnd - separator - 1), text.substr(path, separator - path)});
        start = lineEnd;
    }
}

void LayeringModel::Deliver(const FuzzEvent& event, const std::vector<Tessera>& searchServiceLog)
{
    if ((event.flags & kErrorDelivery) != 0) {
        return;  // no event
    }
    // A value the event does not deliver keeps the one of the event before.
    if ((event.flags & EVT_SIM_NO_TIME) == 0) {
        time_ = event.time;
    }
    if ((event.flags & EVT_SIM_UNFORMATTABLE) == 0) {
        message_ = BeforeNul(event.message);
    }
    agentLines_.push_back(L"Quillon Agent Event: " + message_);
    switch (ClassifyMessage(message_)) {
    case Moment::LogOn:
        logOn_ = time_;
        tesseras_.clear();
        searched_ = false;
        break;
    case Moment::LogOnResponse:
        AppendMountEntries(message_, 0, tesseras_);
        if (logOn_ != 0 && response_ == 0) {
            response_ = time_;
        }
        break;
    case Moment::VolumesReady:
        volumesReady_ = time_;
        break;
    case Moment::LogOff:
        logOn_ = response_ = volumesReady_ = allDone_ = 0;
        break;
    case Moment::AllDone:
        if (tesseras_.empty() && !searched_) {
            tesseras_ = searchServiceLog;
            searched_ = true;
        }
        allDone_ = time_;
        break;
    case Moment::Other:
        break;
    }
}

std::vector<SinkWrite> LayeringModel::Query(const std::optional<std::wstring>& managerHost)
{
    std::vector<SinkWrite> writes;
    if (logOn_ != 0) {
        // A moment not seen is taken to be the one before it, and stays so.
        response_ = response_ != 0 ? response_ : logOn_;
        volumesReady_ = volumesReady_ != 0 ? volumesReady_ : response_;
        allDone_ = allDone_ != 0 ? allDone_ : volumesReady_;
        const std::pair<const wchar_t*, ULONGLONG> stamps[] = {
            {L"quillon|logon_timestamp", logOn_},
            {L"quillon|logon_response_timestamp", response_},
            {L"quillon|volumes_ready_timestamp", volumesReady_},
            {L"quillon|all_done_timestamp", allDone_},
        };
        for (const auto& [key, stamp] : stamps) {
            SinkWrite write;
            write.key = key;
            write.name = L"quillon";
            write.type = VT_UI8;
            write.number = (stamp - kUnixEpochFileTime) / 10000;
            writes.push_back(write);
        }
    }
    if (managerHost && !managerHost->empty()) {
        writes.push_back(Text(L"quillon|mgr", L"quillon|mgr", *managerHost));
    }
    if (!tesseras_.empty()) {
        writes.push_back(Text(L"quillon|instances", L"quillon|instances", L"true"));
        for (const Tessera& tessera : tesseras_) {
            writes.push_back(Text(L"quillon|instances|*", tessera.id, tessera.path));
        }
    }
    return writes;
}

}  // namespace zeph::fuzz
