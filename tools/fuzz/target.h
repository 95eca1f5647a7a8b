// A fuzz target and the loop that feeds it. Each target is one GoogleTest test
// (Fuzz.<Name>): it runs its inputs and states what must hold for each with
// the usual expectations, so a broken oracle reads like any failed test.
//
// The loop runs the target's seeds, then mutations of them, until its share of
// the run's time is spent. An input after which the test has a failure, Wine
// has reported a heap fault or a crash, or that outlives its deadline is saved
// to a file (see Settings::outFolder) and ends the target; a crash of the
// process saves the input it was running too.
#pragma once

#include "fuzz_input.h"
#include "mutator.h"

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zeph::fuzz {

struct Settings {
    double seconds = 5;           // the whole run, shared out among the targets that run
    uint64_t seed = 1;            // each target mixes in its name
    std::wstring outFolder;       // where failing inputs go
    std::wstring corpusFolder;    // demo/: the real inputs the seeds come from
    std::wstring replayFile;      // replay this one input instead of fuzzing
    std::wstring wineStderrFile;  // Wine's standard error, watched for heap and crash reports
};

Settings& CurrentSettings();

class Target {
public:
    virtual ~Target() = default;
    virtual const char* Name() const = 0;  // the test's name: Fuzz.<Name>
    virtual std::vector<Input> Seeds() = 0;
    virtual Dictionary Pieces() = 0;
    // A target's own kinds of change, after the generic ones; most leave the input as it is.
    virtual void Steer(Input& /*input*/, Mutator& /*mutator*/) {}
    // Runs one input and states what must hold for it. Must not outlive DeadlineMs.
    virtual void Run(const Input& input) = 0;
    virtual DWORD DeadlineMs() const { return 60000; }
    // Inputs the target chose not to run (see its Run).
    virtual uint64_t Skipped() const { return 0; }
};

// The loop, run from the target's test.
void Fuzz(Target& target);

// For main: starts the run's clock, the crash filter and the output folder.
void StartRun();
// The target an input file belongs to; nothing for a file that is no input.
std::optional<std::string> TargetOfInputFile(const std::wstring& path);

struct TargetFigures {
    std::string name;
    uint64_t inputs = 0;
    uint64_t skipped = 0;
    double seconds = 0;
    bool failed = false;
};
const std::vector<TargetFigures>& Figures();

}  // namespace zeph::fuzz
