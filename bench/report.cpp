#include "report.h"

#include <windows.h>

#include <cmath>
#include <cstdio>

namespace zeph::bench {

namespace {

// The table fits a terminal of this many columns.
constexpr size_t kWidth = 100;

std::string Number(double value)
{
    char text[32];
    const double magnitude = std::fabs(value);
    if (magnitude < 0.005) {
        value = 0;  // no "-0.00"
    }
    std::snprintf(text, sizeof text, magnitude >= 100 ? "%.0f" : magnitude >= 10 ? "%.1f" : "%.2f", value);
    return text;
}

std::string Times(double ratio)
{
    char text[32];
    std::snprintf(text, sizeof text, ratio >= 100 ? "%.0fx" : ratio >= 10 ? "%.1fx" : "%.2fx", ratio);
    return text;
}

// Lines of at most kWidth columns, each starting with indent, from words.
void PrintWrapped(const std::string& indent, const std::string& text)
{
    std::string line = indent;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string word = text.substr(start, end - start);
        if (line.size() > indent.size() && line.size() + 1 + word.size() > kWidth) {
            std::printf("%s\n", line.c_str());
            line = indent;
        }
        line += (line.size() > indent.size() ? " " : "") + word;
        start = end + 1;
    }
    if (line.size() > indent.size()) {
        std::printf("%s\n", line.c_str());
    }
}

std::string JsonString(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + "\"";
}

std::string JsonNumber(double value)
{
    if (!std::isfinite(value)) {
        return "null";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

std::string JsonSummary(const Summary& summary)
{
    return "{\"median\": " + JsonNumber(summary.median) + ", \"min\": " + JsonNumber(summary.min) +
           ", \"max\": " + JsonNumber(summary.max) + ", \"runs\": " + std::to_string(summary.runs) + "}";
}

std::string JsonInterval(const Interval& interval)
{
    return "[" + JsonNumber(interval.low) + ", " + JsonNumber(interval.high) + "]";
}

std::string Today()
{
    SYSTEMTIME now{};
    ::GetSystemTime(&now);
    char text[32];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02uZ", now.wYear, now.wMonth, now.wDay, now.wHour,
                  now.wMinute, now.wSecond);
    return text;
}

}  // namespace

void PrintTable(const std::vector<Figure>& figures)
{
    // Each figure on one line, what it rests on beneath it: rounds, the range of
    // each side, the floor, notes; and what a figure below zero or an unsettled
    // judgement means, where there is one.
    std::printf("%-36s %8s %8s %8s %-15s %-8s %s\n", "figure", "median", "floor", "ratio", "95% interval", "goal",
                "holds");
    std::string section;
    int goals = 0;
    int met = 0;
    int undecided = 0;
    for (const Figure& figure : figures) {
        if (figure.section != section) {
            section = figure.section;
            std::printf("%s%s, %s\n", &figure == &figures.front() ? "" : "\n", section.c_str(), figure.unit.c_str());
        }
        const bool hasFloor = !figure.floorName.empty();
        const bool hasGoal = !figure.goal.empty();
        goals += hasGoal;
        met += hasGoal && figure.met;
        undecided += hasGoal && !figure.decided;
        const Interval interval = figure.valueGoal || !hasFloor ? figure.valueInterval : figure.ratioInterval;
        const std::string range = figure.valueGoal || !hasFloor ? Number(interval.low) + ".." + Number(interval.high)
                                                                : Times(interval.low) + ".." + Times(interval.high);
        const char* holds = !hasGoal     ? "-"
                            : figure.met ? (figure.decided ? "yes" : "yes, unsure")
                                         : (figure.decided ? "NO" : "no, unsure");
        std::printf("  %-34s %8s %8s %8s %-15s %-8s %s\n", figure.name.c_str(), Number(figure.value.median).c_str(),
                    hasFloor ? Number(figure.floor.median).c_str() : "-", hasFloor ? Times(figure.ratio).c_str() : "-",
                    range.c_str(), hasGoal ? figure.goal.c_str() : "-", holds);

        std::string basis = std::to_string(figure.rounds) + (figure.rounds == 1 ? " round" : " rounds") + "; " +
                            Number(figure.value.min) + ".." + Number(figure.value.max);
        if (hasFloor) {
            basis += ", floor (" + figure.floorName + ") " + Number(figure.floor.min) + ".." + Number(figure.floor.max);
        }
        if (!figure.note.empty()) {
            basis += "; " + figure.note;
        }
        PrintWrapped("      ", basis);
        if ((figure.value.median < -0.005 || figure.value.min < -0.005) && !figure.belowZero.empty()) {
            PrintWrapped("      ", figure.belowZero);
        }
        if (hasGoal && !figure.decided) {
            PrintWrapped("      ", "unsure: the median's 95% interval, " + range +
                                       ", holds the limit: this machine's load moved the rounds too much to tell "
                                       "on which side of it the median is");
        }
    }
    std::printf("\n%d of %d goals hold", met, goals);
    if (undecided > 0) {
        std::printf("; %d of the %d unsure (the limit lies inside the median's interval)", undecided, goals);
    }
    std::printf(".\n");
    std::fflush(stdout);
}

bool WriteJson(const std::wstring& path, const std::vector<Figure>& figures, bool quick, double seconds)
{
    FILE* file = _wfopen(path.c_str(), L"w");
    if (file == nullptr) {
        return false;
    }
    bool allMet = true;
    std::fprintf(file, "{\n  \"measured\": %s,\n  \"quick\": %s,\n  \"seconds\": %s,\n  \"figures\": [\n",
                 JsonString(Today()).c_str(), quick ? "true" : "false", JsonNumber(seconds).c_str());
    for (size_t i = 0; i < figures.size(); ++i) {
        const Figure& figure = figures[i];
        const bool hasGoal = !figure.goal.empty();
        allMet = allMet && (!hasGoal || figure.met);
        std::fprintf(
            file,
            "    {\"section\": %s, \"name\": %s, \"unit\": %s, \"rounds\": %d,\n"
            "     \"value\": %s, \"value_interval\": %s,\n"
            "     \"floor\": {\"name\": %s, \"summary\": %s},\n"
            "     \"ratio\": %s, \"ratio_interval\": %s,\n"
            "     \"goal\": %s, \"limit\": %s, \"on\": %s, \"met\": %s, \"decided\": %s, \"note\": %s}%s\n",
            JsonString(figure.section).c_str(), JsonString(figure.name).c_str(), JsonString(figure.unit).c_str(),
            figure.rounds, JsonSummary(figure.value).c_str(), JsonInterval(figure.valueInterval).c_str(),
            JsonString(figure.floorName).c_str(), JsonSummary(figure.floor).c_str(), JsonNumber(figure.ratio).c_str(),
            JsonInterval(figure.ratioInterval).c_str(), hasGoal ? JsonString(figure.goal).c_str() : "null",
            hasGoal ? JsonNumber(figure.limit).c_str() : "null",
            hasGoal ? (figure.valueGoal ? "\"value\"" : "\"ratio\"") : "null",
            hasGoal ? (figure.met ? "true" : "false") : "null", hasGoal ? (figure.decided ? "true" : "false") : "null",
            JsonString(figure.note).c_str(), i + 1 < figures.size() ? "," : "");
    }
    std::fprintf(file, "  ],\n  \"all_goals_met\": %s\n}\n", allMet ? "true" : "false");
    return std::fclose(file) == 0;
}

}  // namespace zeph::bench
