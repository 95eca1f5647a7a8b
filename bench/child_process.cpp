#include "child_process.h"

#include "support/child_process.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace zeph::bench {

namespace {

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

// A figure's fields, in one order for writing and reading.
class FigureFields {
public:
    explicit FigureFields(std::vector<std::string> fields = {}) : fields_(std::move(fields)) {}

    void Text(std::string& text)
    {
        if (writing()) {
            out_ += "\t" + text;
        } else {
            text = Next();
        }
    }
    void Number(double& number)
    {
        if (writing()) {
            char text[40];
            std::snprintf(text, sizeof text, "\t%.17g", number);
            out_ += text;
        } else {
            number = std::strtod(Next().c_str(), nullptr);
        }
    }
    void Count(int& count)
    {
        double number = count;
        Number(number);
        count = static_cast<int>(number);
    }
    void Flag(bool& flag)
    {
        double number = flag ? 1 : 0;
        Number(number);
        flag = number != 0;
    }
    void Each(Figure& figure)
    {
        Text(figure.section);
        Text(figure.name);
        Text(figure.unit);
        Summary(figure.value);
        Range(figure.valueInterval);
        Text(figure.floorName);
        Summary(figure.floor);
        Number(figure.ratio);
        Range(figure.ratioInterval);
        Count(figure.rounds);
        Text(figure.goal);
        Number(figure.limit);
        Flag(figure.valueGoal);
        Flag(figure.met);
        Flag(figure.decided);
        Text(figure.note);
        Text(figure.belowZero);
    }

    bool Complete() const { return failed_ == false && next_ == fields_.size(); }
    std::string Line() const { return out_.substr(1) + "\n"; }

private:
    bool writing() const { return fields_.empty(); }
    std::string Next()
    {
        if (next_ >= fields_.size()) {
            failed_ = true;
            return {};
        }
        return fields_[next_++];
    }
    void Summary(zeph::bench::Summary& summary)
    {
        Number(summary.median);
        Number(summary.min);
        Number(summary.max);
        Count(summary.runs);
    }
    void Range(Interval& interval)
    {
        Number(interval.low);
        Number(interval.high);
    }

    std::vector<std::string> fields_;
    size_t next_ = 0;
    bool failed_ = false;
    std::string out_;
};

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
    for (Figure figure : figures) {
        FigureFields fields;
        fields.Each(figure);
        std::fputs(fields.Line().c_str(), file);
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
    while (complete && std::fgets(buffer, sizeof buffer, file) != nullptr) {
        FigureFields fields(Fields(buffer));
        Figure figure;
        fields.Each(figure);
        complete = fields.Complete();
        if (complete) {
            figures.push_back(figure);
        }
    }
    std::fclose(file);
    return complete;
}

}  // namespace zeph::bench
