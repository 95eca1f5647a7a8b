// ReplaceLineBreaks on crash messages of 1 KiB, 64 KiB and 1 MiB of UTF-16
// text, about one line break in every five characters (a megabyte holds about
// a hundred thousand), against a plain copy of the same text.

#include "appcrash/crash_text.h"
#include "benchmarks.h"
#include "scenario.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace zeph::bench {

namespace {

constexpr char kFigurePrefix[] = "ReplaceLineBreaks ";

// Short lines of varying length with CRLF ends, and now and then a lone CR or
// LF that must stay as it is.
std::wstring MessageOfBytes(size_t bytes)
{
    static constexpr const wchar_t* kLines[] = {L"ab", L"cde", L"f\rg", L"hi", L"jk\nl", L"mno", L"p"};
    const size_t characters = bytes / sizeof(wchar_t);
    std::wstring text;
    text.reserve(characters + 8);
    for (size_t i = 0; text.size() < characters; ++i) {
        text += kLines[i % std::size(kLines)];
        text += L"\r\n";
    }
    text.resize(characters);
    return text;
}

size_t CountLineBreaks(const std::wstring& text)
{
    size_t count = 0;
    for (size_t found = text.find(L"\r\n"); found != std::wstring::npos; found = text.find(L"\r\n", found + 2)) {
        ++count;
    }
    return count;
}

}  // namespace

std::vector<Figure> MeasureDetailText(const Options& options)
{
    struct Size {
        const char* name;
        size_t bytes;
        int repeats;  // calls per timed run, so that every run takes a few milliseconds
    };
    const Size sizes[] = {{"1 KiB", 1024, 2000}, {"64 KiB", 64 * 1024, 40}, {"1 MiB", 1024 * 1024, 3}};
    const Budget budget = options.quick ? Budget{3, 3, 0} : Budget{15, 201, 10};

    struct SizeRuns {
        std::wstring message;
        size_t expected = 0;
        std::vector<double> product;
        std::vector<double> copy;
    };
    std::vector<SizeRuns> measured(std::size(sizes));
    for (size_t i = 0; i < std::size(sizes); ++i) {
        measured[i].message = MessageOfBytes(sizes[i].bytes);
        measured[i].expected = measured[i].message.size() + CountLineBreaks(measured[i].message) * 4;
    }
    size_t sink = 0;

    auto product = [&](size_t i) {
        const Size& size = sizes[i];
        const double start = NowNs();
        for (int call = 0; call < size.repeats; ++call) {
            const std::wstring text = ReplaceLineBreaks(measured[i].message);
            sink += text.size();
            if (text.size() != measured[i].expected) {
                Fail("ReplaceLineBreaks gave a text of the wrong length");
            }
        }
        return (NowNs() - start) / static_cast<double>(size.repeats) / static_cast<double>(size.bytes);
    };
    auto copy = [&](size_t i) {
        const Size& size = sizes[i];
        const double start = NowNs();
        for (int call = 0; call < size.repeats; ++call) {
            const std::wstring text(measured[i].message);
            sink += text.size();
        }
        return (NowNs() - start) / static_cast<double>(size.repeats) / static_cast<double>(size.bytes);
    };

    // A round: every size, product and copy in turns. The goal is on the
    // product's cost per byte, so that is what must settle.
    RunRounds(
        budget,
        [&](int round) {
            for (size_t i = 0; i < measured.size(); ++i) {
                const bool productFirst = round % 2 == 0;
                const double first = productFirst ? product(i) : copy(i);
                const double second = productFirst ? copy(i) : product(i);
                if (round >= 0) {
                    measured[i].product.push_back(productFirst ? first : second);
                    measured[i].copy.push_back(productFirst ? second : first);
                }
            }
        },
        [&] {
            return std::all_of(measured.begin(), measured.end(),
                               [](const SizeRuns& m) { return Settled(m.product, kRatioTolerance, true); });
        });
    if (sink == 0) {
        Fail("nothing was measured");
    }

    std::vector<Figure> figures;
    for (size_t i = 0; i < measured.size(); ++i) {
        Figure figure = Compare("detail text", std::string(kFigurePrefix) + sizes[i].name, "ns/byte",
                                measured[i].product, "plain copy", measured[i].copy);
        char note[96];
        std::snprintf(note, sizeof note, "%zu line breaks; %.1f us a call", CountLineBreaks(measured[i].message),
                      figure.value.median * static_cast<double>(sizes[i].bytes) / 1000.0);
        figure.note = note;
        figures.push_back(figure);
    }

    // Linear: the cost per byte stays within a factor of two from the
    // cheapest size to the dearest, compared round by round.
    size_t cheapest = 0;
    size_t dearest = 0;
    for (size_t i = 0; i < figures.size(); ++i) {
        if (figures[i].value.median < figures[cheapest].value.median) {
            cheapest = i;
        }
        if (figures[i].value.median > figures[dearest].value.median) {
            dearest = i;
        }
    }
    Figure spread = Compare("detail text", "per-byte spread", "ns/byte", measured[dearest].product, "cheapest size",
                            measured[cheapest].product);
    SetGoal(spread, 2.0, false, "<= 2x");
    spread.note = std::string(sizes[dearest].name) + " over " + sizes[cheapest].name;
    figures.push_back(spread);
    return figures;
}

}  // namespace zeph::bench
