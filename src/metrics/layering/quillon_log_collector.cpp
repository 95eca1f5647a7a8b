#include "layering/quillon_log_collector.h"

#include "metric/logging.h"
#include "win/code_unit_search.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace zeph {

namespace {

constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\services\\drovesvc";
constexpr wchar_t kImagePathValue[] = L"ImagePath";
constexpr wchar_t kLogFolder[] = L"\\Logs\\";
constexpr wchar_t kLogFileName[] = L"drovesvc.log";
// The leading backslash doubles the separator after "Logs"; the file system
// reads it as one.
constexpr wchar_t kBackupLogFileName[] = L"\\drovesvc_bak.log";

constexpr wchar_t kLoginResponse[] = L"Manager status 200 response";
constexpr wchar_t kMountToken[] = L"MOUNTED-READ;";
// What a mount line is searched for, measured once at compile time.
constexpr std::wstring_view kMountTokenText = kMountToken;
constexpr wchar_t kPathEnd = L';';
constexpr std::wstring_view kLineEnd = L"\r\n";

// The service's image path is read into a 2048-byte buffer of which at most
// 2046 bytes are filled, so the text always ends in a zero.
constexpr DWORD kImagePathBufferBytes = 2048;
constexpr DWORD kImagePathQueryBytes = 2046;

constexpr wchar_t kPrepareCollectLog[] = L"PrepareCollectLog";
constexpr wchar_t kGotLogFileSize[] = L"Got log file(drovesvc.log) size: %d";
constexpr wchar_t kOpenServiceKeyFailed[] = L"Failed to open registry key for drovesvc, error: %d";
constexpr wchar_t kQueryImagePathFailed[] = L"Failed to query value ImagePath, error: %d";
constexpr wchar_t kImagePath[] = L"drovesvc image path: %s";
constexpr wchar_t kLogPath[] = L"drovesvc log path: %s";
constexpr wchar_t kOpenLogFileFailed[] = L"Failed to open log file, error: %d";
constexpr wchar_t kLogFileNotExist[] = L"Log file not exist";
constexpr wchar_t kGetLogFileSizeFailed[] = L"Failed to get log file size, error: %d";
constexpr wchar_t kSetFilePointerFailed[] = L"Failed to set file pointer, error: %d";
constexpr wchar_t kReadExceedsMax[] = L"Asked to read %d bytes, exceed max read bytes";
constexpr wchar_t kCollectLog[] = L"CollectLog";
constexpr wchar_t kLogNotAvailable[] = L"log is not availbe, read from backup log";
constexpr wchar_t kNoLogsCollected[] = L"No logs collected";
constexpr wchar_t kReadCurrentLog[] = L"Read logs from drovesvc.log";
constexpr wchar_t kReadRotatedLogs[] = L"Read logs from drovesvc.log and drovesvc_bak.log";
constexpr wchar_t kReadLogFileFailed[] = L"Failed to read from log file, error: %d";
constexpr wchar_t kReadLogsFailed[] = L"Failed to read logs, error: %d";
constexpr wchar_t kOpenBackupLogFailed[] = L"Failed to open backup log file, error: %d";
constexpr wchar_t kBackupSmallerThanBegin[] =
    L"Backup log file size less than the beginning size, must error occurred, abort";
constexpr wchar_t kReadBackupLogFailed[] = L"Failed to read from backup log, error: %d";
constexpr wchar_t kLoginResponseNotFound[] = L"Failed to find login response from the log";
constexpr wchar_t kFoundTesseraPath[] = L"Find tessera path: %s";
constexpr wchar_t kFoundTesseraId[] = L"Find tessera id: %s";

// An info line whose "%s" is a part of the text: copied out, to end it with a
// zero, only when the line is written. A parse finds thousands of Tesseras,
// and two copies of each, made for lines the host seldom wants, weighed on
// the service log figure.
void LogTextPart(IProviderLogger* logger, const wchar_t* format, std::wstring_view part, std::wstring& copy)
{
    if (IsLogLevelEnabled(logger, LogLevel::Info)) {
        copy.assign(part);
        WriteLogLine(logger, LogLevel::Info, FormatString(format, copy.c_str()));
    }
}

// Win32 codes and byte counts go to "%d" as the 32-bit integers they are.
int AsLogNumber(DWORD value) noexcept
{
    return static_cast<int>(value);
}

}  // namespace

CQuillonLogCollector::CQuillonLogCollector(IProviderLogger* logger) : logger_(logger) {}

bool CQuillonLogCollector::PrepareCollectLog()
{
    Log(logger_.Get(), LogLevel::Info, kPrepareCollectLog);
    // Everything that may fail for want of memory comes before the cycle's
    // state changes: a log-on that cannot be prepared leaves the last one as it was.
    std::wstring directory;
    const bool found = FindLogDirectory(directory);
    DWORD error = ERROR_SUCCESS;
    DWORD size = 0;
    bool gotSize = false;
    unique_file file;
    if (found) {
        file = OpenLogFile(directory + kLogFileName, error);
        gotSize = file && GetLogFileSize(file.get(), size);
        if (gotSize) {
            Log(logger_.Get(), LogLevel::Info, kGotLogFileSize, AsLogNumber(size));
        }
    }

    std::vector<std::wstring>().swap(tesseraBlocks_);
    std::deque<TesseraSpan>().swap(tesseraSpans_);
    responseSearched_ = false;
    if (!found) {
        return false;
    }
    logDirectory_.swap(directory);
    collectedText_.length = 0;
    if (!file && error == ERROR_FILE_NOT_FOUND) {
        // A log that does not exist yet is read from its start later.
        beginSize_ = 0;
        return true;
    }
    if (gotSize) {
        beginSize_ = size;
    }
    return gotSize;
}

bool CQuillonLogCollector::FindLogDirectory(std::wstring& directory)
{
    {
        unique_hkey key;
        if (!OpenServiceKey(key.put())) {
            return false;
        }
        if (!QueryImagePath(key.get(), directory)) {
            return false;
        }
    }
    Log(logger_.Get(), LogLevel::Info, kImagePath, directory.c_str());

    // The image path may be quoted (it contains blanks); the quotes are no
    // part of the folder.
    std::erase(directory, L'"');
    const size_t lastSeparator = directory.rfind(L'\\');
    if (lastSeparator != std::wstring::npos) {
        directory.erase(lastSeparator);
    }
    directory += kLogFolder;
    Log(logger_.Get(), LogLevel::Info, kLogPath, directory.c_str());
    return true;
}

bool CQuillonLogCollector::OpenServiceKey(HKEY* key)
{
    const LSTATUS status = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kServiceKey, 0, KEY_READ, key);
    if (status != ERROR_SUCCESS) {
        Log(logger_.Get(), LogLevel::Error, kOpenServiceKeyFailed, AsLogNumber(status));
        return false;
    }
    return true;
}

bool CQuillonLogCollector::QueryImagePath(HKEY key, std::wstring& directory)
{
    // Neither the value's type is looked at nor an expandable value expanded:
    // the service installs a plain path.
    std::vector<wchar_t> buffer(kImagePathBufferBytes / sizeof(wchar_t), L'\0');
    DWORD size = kImagePathQueryBytes;
    const LSTATUS status =
        ::RegQueryValueExW(key, kImagePathValue, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer.data()), &size);
    if (status != ERROR_SUCCESS) {
        Log(logger_.Get(), LogLevel::Error, kQueryImagePathFailed, AsLogNumber(status));
        return false;
    }
    Log(logger_.Get(), LogLevel::Info, kImagePath, buffer.data());
    directory = buffer.data();
    return true;
}

unique_file CQuillonLogCollector::OpenLogFile(const std::wstring& path, DWORD& error)
{
    // Full sharing: the service goes on writing and renaming its log meanwhile.
    unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                   nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        error = ::GetLastError();
        if (error != ERROR_FILE_NOT_FOUND) {
            Log(logger_.Get(), LogLevel::Error, kOpenLogFileFailed, AsLogNumber(error));
        } else {
            Log(logger_.Get(), LogLevel::Info, kLogFileNotExist);
        }
    }
    return file;
}

bool CQuillonLogCollector::GetLogFileSize(HANDLE file, DWORD& size)
{
    LARGE_INTEGER fileSize{};
    if (!::GetFileSizeEx(file, &fileSize)) {
        Log(logger_.Get(), LogLevel::Error, kGetLogFileSizeFailed, AsLogNumber(::GetLastError()));
        return false;
    }
    // Offsets are 32-bit throughout: logs of 4 GiB or more are not supported.
    size = fileSize.LowPart;
    return true;
}

bool CQuillonLogCollector::SetReadPosition(HANDLE file, DWORD offset)
{
    LARGE_INTEGER position{};
    position.QuadPart = offset;
    if (!::SetFilePointerEx(file, position, nullptr, FILE_BEGIN)) {
        Log(logger_.Get(), LogLevel::Error, kSetFilePointerFailed, AsLogNumber(::GetLastError()));
        return false;
    }
    return true;
}

bool CQuillonLogCollector::ReadLogBytes(HANDLE file, DWORD count, ReadText& destination)
{
    destination.length = 0;
    if (count > kMaxReadBytes) {
        Log(logger_.Get(), LogLevel::Error, kReadExceedsMax, AsLogNumber(count));
        return false;
    }
    if (count == 0) {
        return true;
    }

    // Read straight into the destination's storage, which stays from one
    // collection to the next and is read over without being zeroed first:
    // a half-megabyte scratch buffer and a second copy per read, then zeroing
    // the storage before each read, cost the service log figure more than
    // reading and searching it.
    if (destination.units.size() < (count + 1) / 2) {
        destination.units.resize((count + 1) / 2);
    }
    wchar_t* const text = destination.units.data();
    DWORD bytesRead = 0;
    if (!::ReadFile(file, text, count, &bytesRead, nullptr)) {
        return false;  // the caller reports the read's own error
    }
    // What zeroed storage would give: an odd last byte with a zero high byte,
    // and the text ending with the bytes read, or at a zero code unit before.
    const size_t unitsRead = (bytesRead + 1) / 2;
    if (bytesRead % 2 != 0) {
        // Little-endian: the low byte came first.
        text[unitsRead - 1] = static_cast<wchar_t>(text[unitsRead - 1] & 0xff);
    }
    destination.length = static_cast<size_t>(FindCodeUnit(text, text + unitsRead, L'\0') - text);
    return true;
}

bool CQuillonLogCollector::CollectLog()
{
    Log(logger_.Get(), LogLevel::Info, kCollectLog);

    DWORD error = ERROR_SUCCESS;
    const unique_file file = OpenLogFile(logDirectory_ + kLogFileName, error);
    if (file) {
        return GetLogFileSize(file.get(), currentSize_) && ReadNewLogs(file.get());
    }
    if (error == ERROR_FILE_NOT_FOUND) {
        Log(logger_.Get(), LogLevel::Info, kLogNotAvailable);
        return ReadBackupLog(collectedText_);
    }
    return false;
}

bool CQuillonLogCollector::ReadNewLogs(HANDLE file)
{
    if (currentSize_ == beginSize_) {
        collectedText_.length = 0;
        Log(logger_.Get(), LogLevel::Info, kNoLogsCollected);
        return true;
    }
    if (beginSize_ < currentSize_) {
        Log(logger_.Get(), LogLevel::Info, kReadCurrentLog);
        return ReadCurrentLog(file);
    }
    // Smaller than when the cycle began: the service rotated its log.
    Log(logger_.Get(), LogLevel::Info, kReadRotatedLogs);
    return ReadRotatedLogs(file);
}

bool CQuillonLogCollector::ReadCurrentLog(HANDLE file)
{
    if (!SetReadPosition(file, beginSize_)) {
        return false;
    }
    if (!ReadLogBytes(file, currentSize_ - beginSize_, collectedText_)) {
        Log(logger_.Get(), LogLevel::Error, kReadLogFileFailed, AsLogNumber(::GetLastError()));
        return false;
    }
    return true;
}

bool CQuillonLogCollector::ReadRotatedLogs(HANDLE file)
{
    ReadText backupPart;
    if (!ReadBackupLog(backupPart)) {
        return false;
    }
    // The new log is read whole, from its start (the file was just opened).
    ReadText currentPart;
    if (!ReadLogBytes(file, currentSize_, currentPart)) {
        Log(logger_.Get(), LogLevel::Error, kReadLogsFailed, AsLogNumber(::GetLastError()));
        return false;
    }
    const size_t length = backupPart.length + currentPart.length;
    if (collectedText_.units.size() < length) {
        collectedText_.units.resize(length);
    }
    std::copy_n(currentPart.units.data(), currentPart.length,
                std::copy_n(backupPart.units.data(), backupPart.length, collectedText_.units.data()));
    collectedText_.length = length;
    return true;
}

bool CQuillonLogCollector::ReadBackupLog(ReadText& destination)
{
    destination.length = 0;

    DWORD error = ERROR_SUCCESS;
    const unique_file file = OpenLogFile(logDirectory_ + kBackupLogFileName, error);
    if (!file) {
        Log(logger_.Get(), LogLevel::Error, kOpenBackupLogFailed, AsLogNumber(error));
        return false;
    }
    DWORD backupSize = 0;
    if (!GetLogFileSize(file.get(), backupSize)) {
        return false;
    }
    if (backupSize < beginSize_) {
        // Not the log this cycle began with. Still a success: a rotated read
        // goes on with the new log alone.
        Log(logger_.Get(), LogLevel::Error, kBackupSmallerThanBegin);
        return true;
    }
    if (backupSize == beginSize_) {
        return true;
    }
    if (!SetReadPosition(file.get(), beginSize_)) {
        return false;
    }
    if (!ReadLogBytes(file.get(), backupSize - beginSize_, destination)) {
        Log(logger_.Get(), LogLevel::Error, kReadBackupLogFailed, AsLogNumber(::GetLastError()));
        return false;
    }
    return true;
}

bool CQuillonLogCollector::FindLoginResponse()
{
    if (responseSearched_) {
        return true;
    }
    if (!CollectLog()) {
        responseSearched_ = true;
        return false;
    }
    // Searched only once the search is through: one that failed for want of
    // memory is tried again with the next all-done event.
    const size_t response = FindText(collectedText_.Text(), kLoginResponse);
    if (response == std::wstring::npos) {
        Log(logger_.Get(), LogLevel::Error, kLoginResponseNotFound);
        responseSearched_ = true;
        return false;
    }
    // Mount lines before the answer belong to an earlier log-on. (Always true.)
    (void)ParseMountedTesseras(collectedText_.Text(), response + std::size(kLoginResponse) - 1);
    responseSearched_ = true;
    return true;
}

bool CQuillonLogCollector::ParseMountedTesseras(std::wstring_view text, size_t start)
{
    // All or nothing: a text whose entries cannot all be kept adds none, so
    // that the service log still gets its chance.
    const size_t kept = tesseraSpans_.size();
    try {
        std::wstring_view path;
        std::wstring_view id;
        std::wstring logged;
        size_t position = start;
        while (ExtractMountEntry(text, position, path, id, position)) {
            LogTextPart(logger_.Get(), kFoundTesseraPath, path, logged);
            LogTextPart(logger_.Get(), kFoundTesseraId, id, logged);
            AddTessera(path, id);
        }
    } catch (...) {
        tesseraSpans_.resize(kept);
        throw;
    }
    return true;
}

void CQuillonLogCollector::AddTessera(std::wstring_view path, std::wstring_view id)
{
    const std::wstring_view line(path.data(), path.size() + 1 + id.size());
    if (tesseraBlocks_.empty() || tesseraBlocks_.back().capacity() - tesseraBlocks_.back().size() < line.size()) {
        std::wstring block;
        block.reserve(std::max(line.size(), kTesseraBlockChars));
        tesseraBlocks_.push_back(std::move(block));
    }
    std::wstring& block = tesseraBlocks_.back();
    const TesseraSpan span{tesseraBlocks_.size() - 1, block.size(), path.size(), id.size()};
    block += line;
    tesseraSpans_.push_back(span);
}

std::vector<TesseraEntry> CQuillonLogCollector::GetTesseras() const
{
    std::vector<TesseraEntry> tesseras;
    tesseras.reserve(tesseraSpans_.size());
    for (const TesseraSpan& span : tesseraSpans_) {
        const std::wstring& block = tesseraBlocks_[span.block];
        tesseras.push_back(TesseraEntry{block.substr(span.start + span.pathLength + 1, span.idLength),
                                        block.substr(span.start, span.pathLength)});
    }
    return tesseras;
}

bool CQuillonLogCollector::ExtractMountEntry(std::wstring_view text, size_t start, std::wstring_view& path,
                                             std::wstring_view& id, size_t& next)
{
    // A mount line ends in "MOUNTED-READ;<path>;<id>\r\n".
    // Over a whole parse the searches below cover the collected text once:
    // they go eight units at a time rather than the runtime's one.
    const size_t token = FindText(text, kMountTokenText, start);
    if (token == std::wstring::npos) {
        return false;
    }
    const size_t pathStart = token + kMountTokenText.size();
    if (pathStart >= text.size()) {
        return false;
    }
    const wchar_t* const begin = text.data();
    const wchar_t* const end = begin + text.size();
    // The single units are looked for by themselves, without the general
    // search around them: three searches a Tessera weighed on the service
    // log figure.
    const wchar_t* const separator = FindCodeUnit(begin + pathStart, end, kPathEnd);
    if (separator == end) {
        return false;
    }
    // A last line without its line end may still be being written: not taken.
    const wchar_t* lineEnd = FindCodeUnit(separator, end - 1, kLineEnd[0]);
    while (lineEnd != end - 1 && lineEnd[1] != kLineEnd[1]) {
        lineEnd = FindCodeUnit(lineEnd + 1, end - 1, kLineEnd[0]);
    }
    if (lineEnd == end - 1) {
        return false;
    }
    path = std::wstring_view(begin + pathStart, static_cast<size_t>(separator - begin) - pathStart);
    id = std::wstring_view(separator + 1, static_cast<size_t>(lineEnd - separator) - 1);
    next = static_cast<size_t>(lineEnd - begin);
    return true;
}

}  // namespace zeph
