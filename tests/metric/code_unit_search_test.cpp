// The vectorised searches that the crash texts and the service log use must
// answer exactly as std::wstring_view::find does, wherever the match falls
// relative to the eight-unit chunks (first lane, last lane, the tail after
// the last whole chunk) and for every start position, including the end.
#include "win/code_unit_search.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace zeph {
namespace {

TEST(FindCodeUnit, FindsTheFirstMatchInEveryLaneAndTheTail)
{
    for (size_t length = 0; length <= 40; ++length) {
        for (size_t at = 0; at <= length; ++at) {
            std::wstring text(length, L'a');
            if (at < length) {
                text[at] = L'\r';
                if (at + 3 < length) {
                    text[at + 3] = L'\r';  // a later match must not win
                }
            }
            const wchar_t* begin = text.data();
            EXPECT_EQ(FindCodeUnit(begin, begin + length, L'\r') - begin, static_cast<ptrdiff_t>(at))
                << "length " << length << ", match at " << at;
            if (at < length) {  // nothing beyond the end it is given
                EXPECT_EQ(FindCodeUnit(begin, begin + at, L'\r'), begin + at);
            }
        }
    }
}

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
