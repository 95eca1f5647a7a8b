// The seeded mutation engine: takes an input of the corpus and changes one to
// a few of its fields the way outside data goes wrong: flipped bits, inserted
// and removed code units or bytes (lone surrogates, CR, LF, NUL anywhere),
// pieces of other real inputs spliced in, sizes at the boundaries a reader
// cares about. The same seed gives the same inputs, in the same order.
// Not thread-safe: one per target run.
#pragma once

#include "fuzz_input.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace zeph::fuzz {

// What a target offers the mutator beyond its seeds.
struct Dictionary {
    std::vector<std::wstring> texts;  // pieces of real texts, spliced into text and byte fields
    std::vector<std::string> bytes;   // pieces of real files (tags, lines), spliced into byte fields
    std::vector<size_t> textSizes;    // lengths, in code units, a text reader treats specially
    std::vector<size_t> byteSizes;    // lengths, in bytes, a file reader treats specially
};

class Mutator {
public:
    // No field grows beyond this; larger sizes are what byteSizes asks for.
    static constexpr size_t kMaxFieldBytes = 3u << 20;

    Mutator(uint64_t seed, Dictionary dictionary);

    // A copy of seed with one to several changes.
    Input Mutate(const Input& seed);

    uint64_t Below(uint64_t bound);  // 0 when bound is 0
    bool OneIn(uint64_t n) { return Below(n) == 0; }
    const Dictionary& Pieces() const { return dictionary_; }

    // The single changes, for targets that steer them.
    void MutateText(std::wstring& text);
    void MutateBytes(std::string& bytes);
    void MutateNumber(uint64_t& number);

private:
    template <typename Sequence>
    void MutateSequence(Sequence& sequence, const std::vector<Sequence>& pieces, const std::vector<size_t>& sizes);

    std::mt19937_64 random_;
    Dictionary dictionary_;
    std::vector<std::string> textPiecesAsBytes_;  // the text pieces as UTF-16LE, for byte fields
};

}  // namespace zeph::fuzz
