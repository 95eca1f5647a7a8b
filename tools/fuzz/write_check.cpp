#include "write_check.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zeph::fuzz {

namespace {

// A stretch of text around position, short enough to print.
std::string Excerpt(const std::wstring& text, size_t position)
{
    const size_t from = position > 20 ? position - 20 : 0;
    return testing::PrintToString(text.substr(std::min(from, text.size()), 40)) + " (units " + std::to_string(from) +
           " on, of " + std::to_string(text.size()) + ")";
}

}  // namespace

std::wstring BeforeNul(const std::wstring& text)
{
    return text.substr(0, text.find(L'\0'));
}

void ExpectSameText(const std::wstring& actual, const std::wstring& expected, const std::string& what)
{
    if (actual == expected) {
        return;
    }
    const size_t shorter = std::min(actual.size(), expected.size());
    const size_t at = static_cast<size_t>(
        std::mismatch(actual.begin(), actual.begin() + shorter, expected.begin()).first - actual.begin());
    ADD_FAILURE() << what << " differs at unit " << at << ": " << Excerpt(actual, at) << ", expected "
                  << Excerpt(expected, at);
}

void ExpectSameTexts(const std::vector<std::wstring>& actual, const std::vector<std::wstring>& expected,
                     const std::string& what)
{
    EXPECT_EQ(actual.size(), expected.size()) << "number of " << what;
    for (size_t i = 0; i < std::min(actual.size(), expected.size()); ++i) {
        ExpectSameText(actual[i], expected[i], what + " " + std::to_string(i));
    }
}

bool SameWrites(const std::vector<SinkWrite>& actual, const std::vector<SinkWrite>& expected)
{
    return std::equal(actual.begin(), actual.end(), expected.begin(), expected.end(), [](const auto& a, const auto& e) {
        return a.key == e.key && a.name == e.name && a.type == e.type && a.text == e.text && a.number == e.number &&
               SUCCEEDED(a.result);
    });
}

void ExpectWrites(const std::vector<SinkWrite>& actual, const std::vector<SinkWrite>& expected)
{
    EXPECT_EQ(actual.size(), expected.size()) << "number of values written";
    for (size_t i = 0; i < std::min(actual.size(), expected.size()); ++i) {
        const SinkWrite& a = actual[i];
        const SinkWrite& e = expected[i];
        const std::string what = "write " + std::to_string(i) + " (" + testing::PrintToString(e.key) + ")";
        EXPECT_TRUE(a.key == e.key && a.type == e.type && a.number == e.number && SUCCEEDED(a.result))
            << what << ": " << testing::PrintToString(a.key) << " type " << a.type << " number " << a.number
            << " result " << a.result << ", expected type " << e.type << " number " << e.number;
        ExpectSameText(a.name, e.name, what + "'s name");
        ExpectSameText(a.text, e.text, what + "'s text");
    }
}

}  // namespace zeph::fuzz
