// The real inputs the fuzz targets start from: the demo's files (demo/), read
// with zeph-host's own readers, and its crash events as the event log formats them.
// Loaded once, on first use, on the calling thread (which has joined COM).
#pragma once

#include <string>
#include <vector>

namespace zeph::fuzz {

struct Corpus {
    std::vector<std::wstring> crashMessages;                 // the demo's crashes, formatted by the event log
    std::vector<std::wstring> layeringMessages;              // the layering service's events of the demo scenario
    std::wstring serviceLog;                                 // what the demo's layering service writes to its log
    std::vector<std::vector<std::wstring>> crashInsertions;  // the insertion strings of each exported crash
    std::string configFile;                                  // demo/zeph-host.xml
    std::string scenarioFile;                                // demo/scenario.xml
    std::string eventsFile;                                  // demo/application-errors.xml
};

const Corpus& DemoCorpus();

// The file's bytes; fails the test when it cannot be read.
std::string ReadFileBytes(const std::wstring& path);

}  // namespace zeph::fuzz
