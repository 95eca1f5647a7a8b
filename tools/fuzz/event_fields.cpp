#include "event_fields.h"

namespace zeph::fuzz {

namespace {

std::string Name(const char* part, size_t index)
{
    return part + std::to_string(index);
}

}  // namespace

std::vector<FuzzEvent> EventsOf(const Input& input, size_t mostEvents, DWORD flags)
{
    std::vector<FuzzEvent> events(input.Number("events", 1) % (mostEvents + 1));
    for (size_t i = 0; i < events.size(); ++i) {
        events[i].message = input.Text(Name("message", i));
        events[i].time = input.Number(Name("time", i));
        events[i].flags = static_cast<DWORD>(input.Number(Name("flags", i))) & flags;
        events[i].id = static_cast<USHORT>(input.Number(Name("id", i)));
    }
    return events;
}

Input InputOf(const std::vector<FuzzEvent>& events)
{
    Input input;
    input.SetNumber("events", events.size());
    for (size_t i = 0; i < events.size(); ++i) {
        input.SetText(Name("message", i), events[i].message)
            .SetNumber(Name("time", i), events[i].time)
            .SetNumber(Name("flags", i), events[i].flags)
            .SetNumber(Name("id", i), events[i].id);
    }
    return input;
}

void SteerEventFlags(Input& input, Mutator& mutator, size_t mostEvents)
{
    if (mutator.OneIn(4)) {
        constexpr DWORD kFlags[] = {EVT_SIM_UNFORMATTABLE, EVT_SIM_NO_TIME, EVT_SIM_NO_EVENT_ID, kErrorDelivery,
                                    kDataEvent};
        const std::string name = Name("flags", static_cast<size_t>(mutator.Below(mostEvents)));
        input.SetNumber(name, input.Number(name) ^ kFlags[mutator.Below(std::size(kFlags))]);
    }
}

Dictionary MessagePieces(std::vector<std::wstring> texts)
{
    Dictionary pieces;
    pieces.texts = std::move(texts);
    pieces.texts.insert(pieces.texts.end(), {L"\r\n", L"\n\r", L"\r\r\n", L"<br />", L"%s%n%d", L"\\\\?\\",
                                             std::wstring(1, kInsertionEnd)});
    pieces.textSizes = {0, 1, 2, 32767, 32768, 65536, 100000};
    return pieces;
}

}  // namespace zeph::fuzz
