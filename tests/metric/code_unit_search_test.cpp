// The vectorised searches that the crash texts and the service log use must
// answer exactly as std::wstring_view::find does, wherever the match falls
// relative to the eight-unit chunks (first lane, last lane, the tail after
// the last whole chunk) and for every start position, including the end.
// FindText looks for its first unit with FindCodeUnit, so both are checked.
#include "win/code_unit_search.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace zeph {
namespace {

TEST(FindText, AgreesWithTheStandardFindOnRandomTexts)
{
    std::mt19937 random(20261121);
    const wchar_t alphabet[] = {L'M', L';', L'\r', L'\n', L'x'};
    for (int round = 0; round < 3000; ++round) {
        std::wstring text(random() % 48, L' ');
        for (wchar_t& c : text) {
            c = alphabet[random() % 5];
        }
        std::wstring what(random() % 4, L' ');
        for (wchar_t& c : what) {
            c = alphabet[random() % 5];
        }
        const std::wstring_view view(text);
        for (size_t from = 0; from <= text.size() + 1; ++from) {
            ASSERT_EQ(FindText(view, what, from), view.find(what, from))
                << "round " << round << ", from " << from << ", pattern length " << what.size();
        }
    }
}

}  // namespace
}  // namespace zeph
