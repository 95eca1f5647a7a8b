// The vectorised searches (FindText, and FindCodeUnit under it) must answer as
// std::wstring_view::find does, wherever a match falls relative to the eight-unit
// chunks and from every start position, the end included.
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
