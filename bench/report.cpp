#include "report.h"

#include <windows.h>

#include <cmath>
#include <cstdio>

namespace zeph::bench {

namespace {

std::string Number(double value)
{
    char text[32];
    const double magnitude = std::fabs(value);
    std::snprintf(text, sizeof text, magnitude >= 100 ? "%.0f" : magnitude >= 10 ? "%.1f" : "%.2f", value);
    return text;
}

std::string Range(const Summary& summary)
{
    return Number(summary.median) + " [" + Number(summary.min) + ".." + Number(summary.max) + "]";
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
    std::printf("%-12s %-38s %-9s %-26s %-26s %7s  %-24s %s\n", "section", "figure", "unit", "median [min..max]",
                "floor median [min..max]", "ratio", "goal", "holds");
    std::string section;
    int goals = 0;
    int met = 0;
    for (const Figure& figure : figures) {
        if (figure.section != section && !section.empty()) {
            std::printf("\n");
        }
        section = figure.section;
        const bool hasGoal = !figure.goal.empty();
        goals += hasGoal;
        met += hasGoal && figure.met;
        std::printf("%-12s %-38s %-9s %-26s %-26s %6.2fx  %-24s %s\n", figure.section.c_str(), figure.name.c_str(),
                    figure.unit.c_str(), Range(figure.value).c_str(), Range(figure.floor).c_str(), figure.ratio,
                    hasGoal ? figure.goal.c_str() : "-", hasGoal ? (figure.met ? "yes" : "NO") : "-");
        if (!figure.note.empty() || !figure.floorName.empty()) {
            std::printf("%-12s   floor: %s%s%s\n", "", figure.floorName.c_str(), figure.note.empty() ? "" : "; ",
                        figure.note.c_str());
        }
    }
    std::printf("\n%d of %d goals hold.\n", met, goals);
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
        std::fprintf(file,
                     "    {\"section\": %s, \"name\": %s, \"unit\": %s,\n"
                     "     \"value\": %s,\n"
                     "     \"floor\": {\"name\": %s, \"summary\": %s},\n"
                     "     \"ratio\": %s, \"goal\": %s, \"met\": %s, \"note\": %s}%s\n",
                     JsonString(figure.section).c_str(), JsonString(figure.name).c_str(),
                     JsonString(figure.unit).c_str(), JsonSummary(figure.value).c_str(),
                     JsonString(figure.floorName).c_str(), JsonSummary(figure.floor).c_str(),
                     JsonNumber(figure.ratio).c_str(), hasGoal ? JsonString(figure.goal).c_str() : "null",
                     hasGoal ? (figure.met ? "true" : "false") : "null", JsonString(figure.note).c_str(),
                     i + 1 < figures.size() ? "," : "");
    }
    std::fprintf(file, "  ],\n  \"all_goals_met\": %s\n}\n", allMet ? "true" : "false");
    return std::fclose(file) == 0;
}

}  // namespace zeph::bench
