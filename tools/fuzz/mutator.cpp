#include "mutator.h"

#include <algorithm>
#include <limits>

namespace zeph::fuzz {

namespace {

// FILETIME of 1970-01-01 00:00 UTC: the layering metric counts its milliseconds from there.
constexpr uint64_t kUnixEpochFileTime = 116444736000000000ull;

// Units that break text handling: surrogates without their partner, line ends
// alone and in the wrong order, the terminator, non-characters, byte-order marks.
wchar_t SpecialUnit(Mutator& mutator)
{
    switch (mutator.Below(10)) {
    case 0:
        return static_cast<wchar_t>(0xD800 + mutator.Below(0x400));  // high surrogate
    case 1:
        return static_cast<wchar_t>(0xDC00 + mutator.Below(0x400));  // low surrogate
    case 2:
        return L'\r';
    case 3:
        return L'\n';
    case 4:
        return L'\0';
    case 5:
        return static_cast<wchar_t>(0xFFFF);
    case 6:
        return static_cast<wchar_t>(0xFEFF);
    case 7:
        return L'%';
    case 8:
        return static_cast<wchar_t>(0xFFFE);
    default:
        return static_cast<wchar_t>(mutator.Below(0x10000));
    }
}

char SpecialByte(Mutator& mutator)
{
    static constexpr unsigned char kBytes[] = {0x00, 0xFF, 0xFE, 0x0D, 0x0A, 0xEF, 0xBB, 0xBF, 0x80, 0xC0, '<', '&'};
    if (mutator.OneIn(4)) {
        return static_cast<char>(mutator.Below(256));
    }
    return static_cast<char>(kBytes[mutator.Below(std::size(kBytes))]);
}

template <typename Unit>
Unit Special(Mutator& mutator);
template <>
wchar_t Special<wchar_t>(Mutator& mutator)
{
    return SpecialUnit(mutator);
}
template <>
char Special<char>(Mutator& mutator)
{
    return SpecialByte(mutator);
}

}  // namespace

Mutator::Mutator(uint64_t seed, Dictionary dictionary) : random_(seed), dictionary_(std::move(dictionary))
{
    for (const std::wstring& text : dictionary_.texts) {
        textPiecesAsBytes_.push_back(TextBytes(text));
    }
    textPiecesAsBytes_.insert(textPiecesAsBytes_.end(), dictionary_.bytes.begin(), dictionary_.bytes.end());
}

uint64_t Mutator::Below(uint64_t bound)
{
    return bound == 0 ? 0 : std::uniform_int_distribution<uint64_t>(0, bound - 1)(random_);
}

template <typename Sequence>
void Mutator::MutateSequence(Sequence& sequence, const std::vector<Sequence>& pieces, const std::vector<size_t>& sizes)
{
    using Unit = typename Sequence::value_type;
    const size_t maxUnits = kMaxFieldBytes / sizeof(Unit);
    // Mostly short stretches, now and then long ones.
    const auto length = [&](size_t most) -> size_t {
        return most == 0 ? 0 : 1 + static_cast<size_t>(Below(std::min<uint64_t>(most, uint64_t{1} << Below(17))));
    };
    const auto position = [&] { return static_cast<size_t>(Below(sequence.size() + 1)); };
    const auto piece = [&]() -> Sequence {
        if (pieces.empty() || OneIn(8)) {
            return Sequence(1 + Below(4), Special<Unit>(*this));
        }
        const Sequence& whole = pieces[Below(pieces.size())];
        if (OneIn(2)) {
            return whole;
        }
        const size_t from = static_cast<size_t>(Below(whole.size() + 1));
        return whole.substr(from, length(whole.size() - from));
    };

    switch (Below(10)) {
    case 0:  // one bit flipped
        if (!sequence.empty()) {
            sequence[Below(sequence.size())] ^= static_cast<Unit>(1u << Below(sizeof(Unit) * 8));
        }
        break;
    case 1:  // a few special units
        for (uint64_t i = 0, count = 1 + Below(3); i < count; ++i) {
            sequence.insert(position(), 1, Special<Unit>(*this));
        }
        break;
    case 2:  // a stretch removed
        if (!sequence.empty()) {
            const size_t from = static_cast<size_t>(Below(sequence.size()));
            sequence.erase(from, length(sequence.size() - from));
        }
        break;
    case 3:  // a piece of a real input inserted
        sequence.insert(position(), piece());
        break;
    case 4: {  // a stretch replaced by a piece
        const size_t from = position();
        sequence.replace(from, length(sequence.size() - from), piece());
        break;
    }
    case 5:  // a stretch repeated
        if (!sequence.empty()) {
            const size_t from = static_cast<size_t>(Below(sequence.size()));
            const Sequence stretch = sequence.substr(from, length(sequence.size() - from));
            const size_t at = position();
            for (uint64_t i = 0, count = 1 + Below(OneIn(4) ? 1000 : 4); i < count; ++i) {
                sequence.insert(at, stretch);
                if (sequence.size() > maxUnits) {
                    break;
                }
            }
        }
        break;
    case 6:  // grown or cut to a size the reader treats specially, give or take a unit
        if (!sizes.empty()) {
            const size_t size = sizes[Below(sizes.size())] + Below(3);
            const size_t wanted = size > 0 ? size - 1 : 0;
            if (sequence.empty() && wanted > 0) {
                sequence = piece();
            }
            while (!sequence.empty() && sequence.size() < wanted) {
                sequence += sequence.substr(0, wanted - sequence.size());
            }
            sequence.resize(std::min(wanted, sequence.size()));
        }
        break;
    case 7:  // one unit replaced by any value
        if (!sequence.empty()) {
            sequence[Below(sequence.size())] = static_cast<Unit>(Below(uint64_t{1} << (sizeof(Unit) * 8)));
        }
        break;
    case 8:  // cut at any point (odd lengths for files)
        sequence.resize(position());
        break;
    default:  // a stretch of itself moved elsewhere
        if (!sequence.empty()) {
            const size_t from = static_cast<size_t>(Below(sequence.size()));
            const Sequence stretch = sequence.substr(from, length(sequence.size() - from));
            sequence.erase(from, stretch.size());
            sequence.insert(position(), stretch);
        }
        break;
    }
    if (sequence.size() > maxUnits) {
        sequence.resize(maxUnits);
    }
}

void Mutator::MutateText(std::wstring& text)
{
    MutateSequence(text, dictionary_.texts, dictionary_.textSizes);
}

void Mutator::MutateBytes(std::string& bytes)
{
    MutateSequence(bytes, textPiecesAsBytes_, dictionary_.byteSizes);
}

void Mutator::MutateNumber(uint64_t& number)
{
    constexpr uint64_t kInteresting[] = {
        0,
        1,
        std::numeric_limits<uint64_t>::max(),
        static_cast<uint64_t>(std::numeric_limits<int64_t>::max()),
        static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + 1,
        kUnixEpochFileTime - 1,
        kUnixEpochFileTime,
        0xFFFFFFFFull,
        0x100000000ull,
    };
    switch (Below(4)) {
    case 0:
        number ^= uint64_t{1} << Below(64);
        break;
    case 1:
        number = kInteresting[Below(std::size(kInteresting))];
        break;
    case 2:
        number += Below(2) == 0 ? Below(1000) : 0 - Below(1000);
        break;
    default:
        number = random_();
        break;
    }
}

Input Mutator::Mutate(const Input& seed)
{
    Input input = seed;
    if (input.Fields().empty()) {
        return input;
    }
    for (uint64_t i = 0, count = 1 + Below(OneIn(3) ? 8 : 2); i < count; ++i) {
        Field& field = input.Fields()[Below(input.Fields().size())];
        switch (field.kind) {
        case FieldKind::Text: {
            std::wstring text = BytesText(field.data);
            MutateText(text);
            field.data = TextBytes(text);
            break;
        }
        case FieldKind::Bytes:
            MutateBytes(field.data);
            break;
        case FieldKind::Number: {
            uint64_t number = input.Number(field.name);
            MutateNumber(number);
            input.SetNumber(field.name, number);
            break;
        }
        }
    }
    return input;
}

}  // namespace zeph::fuzz
