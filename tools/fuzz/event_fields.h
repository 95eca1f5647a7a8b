// The events of an input, as the two event-log targets keep them: a count and,
// per event, its message, time, flags and id, each a field of its own so that
// every part mutates apart.
#pragma once

#include "fuzz_input.h"
#include "mutator.h"
#include "provider_session.h"

#include <string>
#include <vector>

namespace zeph::fuzz {

// flags: those of the EVT_SIM_* flags, kErrorDelivery and kDataEvent the target writes.
std::vector<FuzzEvent> EventsOf(const Input& input, size_t mostEvents, DWORD flags);

// An input of these events.
Input InputOf(const std::vector<FuzzEvent>& events);

// Now and then: an event's value that cannot be rendered or formatted, an
// error delivered in its place, its message taken as insertion strings.
void SteerEventFlags(Input& input, Mutator& mutator, size_t mostEvents);

// Sizes of a message that matter: 64 KiB and more, the empty one.
Dictionary MessagePieces(std::vector<std::wstring> texts);

}  // namespace zeph::fuzz
