// CQuillonLogCollector: reads what the layering service ("drovesvc") wrote to
// its own log during one log-on and finds the Tesseras it mounted after the
// manager answered the log-in.
//
// The log lives in a "Logs" folder beside the service's executable, located
// through the service's ImagePath in the registry. The service renames a full
// "drovesvc.log" to "drovesvc_bak.log" and starts a new one, so a cycle's text
// may be split across both files. The text is raw UTF-16LE with CRLF line
// ends, taken as it is (no byte-order mark handling, no conversion).
//
// Ownership: the layering metric owns one collector (shared). It keeps its own
// reference to the host logger (may be null). No file or registry handle
// stays open after an operation returns.
// Failure: operations report a false result plus error lines ("error: %d" with
// the Win32 code); only allocation failures throw.
// Threads: no lock of its own; the owner serialises every call.
#pragma once

#include "win/unique_resource.h"

#include <agent.h>
#include <windows.h>
#include <wrl/client.h>

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace zeph {

// One mounted Tessera as the service log names it.
struct TesseraEntry {
    std::wstring id;
    std::wstring path;
    bool operator==(const TesseraEntry&) const = default;
};

class CQuillonLogCollector {
public:
    // The most one read may ask for; a larger segment is not collected at all.
    static constexpr DWORD kMaxReadBytes = 0x80000;

    explicit CQuillonLogCollector(IProviderLogger* logger);
    CQuillonLogCollector(const CQuillonLogCollector&) = delete;
    CQuillonLogCollector& operator=(const CQuillonLogCollector&) = delete;

    // Starts a cycle: forgets the Tesseras and the search, locates the log
    // folder and remembers the log's present size (0 when it does not exist yet).
    // When it throws, nothing has changed.
    [[nodiscard]] bool PrepareCollectLog();

    // Replaces the collected text with everything appended since
    // PrepareCollectLog, across a rotation if there was one.
    [[nodiscard]] bool CollectLog();

    // Once per cycle: collects the log and, when the manager's answer is in it,
    // takes the mount lines that follow. Later calls succeed without reading.
    [[nodiscard]] bool FindLoginResponse();

    // Appends every mount entry of text from start on, in text order.
    // Nothing here fails but allocation, which adds none; always true.
    [[nodiscard]] bool ParseMountedTesseras(std::wstring_view text, size_t start);

    // The Tesseras found since PrepareCollectLog, in the order found.
    std::vector<TesseraEntry> GetTesseras() const;

    const std::wstring& LogDirectory() const noexcept { return logDirectory_; }
    std::wstring_view CollectedText() const noexcept { return collectedText_.Text(); }
    DWORD BeginSize() const noexcept { return beginSize_; }

private:
    [[nodiscard]] bool FindLogDirectory(std::wstring& directory);
    [[nodiscard]] bool OpenServiceKey(HKEY* key);
    [[nodiscard]] bool QueryImagePath(HKEY key, std::wstring& directory);
    unique_file OpenLogFile(const std::wstring& path, DWORD& error);
    [[nodiscard]] bool GetLogFileSize(HANDLE file, DWORD& size);
    [[nodiscard]] bool SetReadPosition(HANDLE file, DWORD offset);
    // A text read from the log: the first length units of units, whose
    // size only grows, so that a read zeroes nothing (see ReadLogBytes).
    struct ReadText {
        std::wstring units;
        size_t length = 0;
        std::wstring_view Text() const noexcept { return {units.data(), length}; }
    };
    [[nodiscard]] bool ReadLogBytes(HANDLE file, DWORD count, ReadText& destination);
    [[nodiscard]] bool ReadNewLogs(HANDLE file);
    [[nodiscard]] bool ReadCurrentLog(HANDLE file);
    [[nodiscard]] bool ReadRotatedLogs(HANDLE file);
    [[nodiscard]] bool ReadBackupLog(ReadText& destination);
    // path and id are parts of text.
    [[nodiscard]] static bool ExtractMountEntry(std::wstring_view text, size_t start, std::wstring_view& path,
                                                std::wstring_view& id, size_t& next);

    std::wstring logDirectory_;
    ReadText collectedText_;
    DWORD beginSize_ = 0;
    DWORD currentSize_ = 0;
    bool responseSearched_ = false;
    // The Tesseras found, in order: each as its mount line names it, path,
    // ";" and id, copied at once, back to back in blocks of text, and where
    // each lies. A log-on may mount thousands; two strings of their own each
    // cost two allocations per Tessera on the log-on path, and one
    // ever-growing text kept asking the system for fresh pages. GetTesseras
    // makes the strings for whoever asks.
    static constexpr size_t kTesseraBlockChars = 4096;
    struct TesseraSpan {
        size_t block;
        size_t start;
        size_t pathLength;
        size_t idLength;
    };
    // path and id as ExtractMountEntry gives them, one ";" apart in the text.
    void AddTessera(std::wstring_view path, std::wstring_view id);
    std::vector<std::wstring> tesseraBlocks_;
    std::deque<TesseraSpan> tesseraSpans_;
    Microsoft::WRL::ComPtr<IProviderLogger> logger_;
};

}  // namespace zeph
