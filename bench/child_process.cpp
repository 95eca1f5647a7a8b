#include "child_process.h"

#include "support/child_process.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace zeph::bench {

namespace {

void WriteSummary(FILE* file, const Summary& summary)
{
    std::fprintf(file, "\t%.17g\t%.17g\t%.17g\t%d", summary.median, summary.min, summary.max, summary.runs);
}

// Splits a line at tabs; the last field keeps no line end.
std::vector<std::string> Fields(std::string line)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    std::vector<std::string> fields;
    size_t start = 0;
    for (size_t tab = line.find('\t'); tab != std::string::npos; tab = line.find('\t', start)) {
        fields.push_back(line.substr(start, tab - start));
        start = tab + 1;
    }
    fields.push_back(line.substr(start));
    return fields;
}

Summary ParseSummary(const std::vector<std::string>& fields, size_t first)
{
    Summary summary;
    summary.median = std::strtod(fields[first].c_str(), nullptr);
    summary.min = std::strtod(fields[first + 1].c_str(), nullptr);
    summary.max = std::strtod(fields[first + 2].c_str(), nullptr);
    summary.runs = std::atoi(fields[first + 3].c_str());
    return summary;
}

}  // namespace

std::wstring NewTemporaryFile()
{
    wchar_t folder[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    wchar_t path[MAX_PATH] = {};
    ::GetTempFileNameW(folder, L"zb", 0, path);
    return path;
}

bool RunSelf(const std::wstring& arguments)
{
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    const ChildRun run = RunChild(std::wstring(L"\"") + self + L"\" " + arguments, INFINITE);
    return run.started && run.exitCode == 0;
}

bool WriteFigures(const std::wstring& path, const std::vector<Figure>& figures)
{
    FILE* file = _wfopen(path.c_str(), L"w");
    if (file == nullptr) {
        return false;
    }
    for (const Figure& figure : figures) {
        std::fprintf(file, "%s\t%s\t%s", figure.section.c_str(), figure.name.c_str(), figure.unit.c_str());
        WriteSummary(file, figure.value);
        std::fprintf(file, "\t%s", figure.floorName.c_str());
        WriteSummary(file, figure.floor);
        std::fprintf(file, "\t%.17g\t%s\t%d\t%s\n", figure.ratio, figure.goal.c_str(), figure.met ? 1 : 0,
                     figure.note.c_str());
    }
    return std::fclose(file) == 0;
}

bool ReadFigures(const std::wstring& path, std::vector<Figure>& figures)
{
    FILE* file = _wfopen(path.c_str(), L"r");
    if (file == nullptr) {
        return false;
    }
    bool complete = true;
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, file) != nullptr) {
        const std::vector<std::string> fields = Fields(buffer);
        if (fields.size() != 16) {
            complete = false;
            break;
        }
        Figure figure;
        figure.section = fields[0];
        figure.name = fields[1];
        figure.unit = fields[2];
        figure.value = ParseSummary(fields, 3);
        figure.floorName = fields[7];
        figure.floor = ParseSummary(fields, 8);
        figure.ratio = std::strtod(fields[12].c_str(), nullptr);
        figure.goal = fields[13];
        figure.met = fields[14] == "1";
        figure.note = fields[15];
        figures.push_back(figure);
    }
    std::fclose(file);
    return complete;
}

}  // namespace zeph::bench
