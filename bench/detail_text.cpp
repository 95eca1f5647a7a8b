// ReplaceLineBreaks on crash messages of 1 KiB, 64 KiB and 1 MiB of UTF-16
// text, about one line break in every five characters (a megabyte holds about
// a hundred thousand), against a plain copy of the same text.

#include "appcrash/crash_text.h"
#include "benchmarks.h"

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
    const int runs = options.quick ? 3 : 9;

    std::vector<Figure> figures;
    for (const Size& size : sizes) {
        const std::wstring message = MessageOfBytes(size.bytes);
        const size_t expected = message.size() + CountLineBreaks(message) * 4;
        size_t sink = 0;

        auto product = [&] {
            const double start = NowNs();
            for (int i = 0; i < size.repeats; ++i) {
                const std::wstring text = ReplaceLineBreaks(message);
                sink += text.size();
                if (text.size() != expected) {
                    std::fprintf(stderr, "zeph-bench: ReplaceLineBreaks gave %zu characters, not %zu\n", text.size(),
                                 expected);
                }
            }
            return (NowNs() - start) / static_cast<double>(size.repeats) / static_cast<double>(size.bytes);
        };
        auto copy = [&] {
            const double start = NowNs();
            for (int i = 0; i < size.repeats; ++i) {
                const std::wstring text(message);
                sink += text.size();
            }
            return (NowNs() - start) / static_cast<double>(size.repeats) / static_cast<double>(size.bytes);
        };
        std::vector<double> productSamples;
        std::vector<double> floorSamples;
        Alternate(runs, product, copy, productSamples, floorSamples);

        Figure figure;
        figure.section = "detail text";
        figure.name = std::string(kFigurePrefix) + size.name;
        figure.unit = "ns/byte";
        figure.value = Summarize(productSamples);
        figure.floorName = "plain copy";
        figure.floor = Summarize(floorSamples);
        figure.ratio = figure.value.median / figure.floor.median;
        char note[96];
        std::snprintf(note, sizeof note, "%zu line breaks; %.1f us a call", CountLineBreaks(message),
                      figure.value.median * static_cast<double>(size.bytes) / 1000.0);
        figure.note = note;
        figures.push_back(figure);
    }

    // Linear: the cost per byte stays within a factor of two from the
    // cheapest size to the dearest.
    const Figure* cheapest = &figures.front();
    const Figure* dearest = &figures.front();
    for (const Figure& figure : figures) {
        if (figure.value.median < cheapest->value.median) {
            cheapest = &figure;
        }
        if (figure.value.median > dearest->value.median) {
            dearest = &figure;
        }
    }
    Figure spread;
    spread.section = "detail text";
    spread.name = "per-byte spread";
    spread.unit = "ns/byte";
    spread.value = dearest->value;
    spread.floorName = "cheapest size";
    spread.floor = cheapest->value;
    spread.ratio = dearest->value.median / cheapest->value.median;
    spread.goal = "<= 2x (linear)";
    spread.met = spread.ratio <= 2.0;
    spread.note =
        dearest->name.substr(sizeof kFigurePrefix - 1) + " over " + cheapest->name.substr(sizeof kFigurePrefix - 1);
    figures.push_back(spread);
    return figures;
}

}  // namespace zeph::bench
