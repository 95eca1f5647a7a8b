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
constexpr std::wstring_view kPathEnd = L";";
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
    collectedText_.clear();
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

bool CQuillonLogCollector::ReadLogBytes(HANDLE file, DWORD count, std::wstring& destination)
{
    destination.clear();
    if (count > kMaxReadBytes) {
        Log(logger_.Get(), LogLevel::Error, kReadExceedsMax, AsLogNumber(count));
        return false;
    }
    if (count == 0) {
        return true;
    }

    // Read straight into the destination, which keeps its storage from one
    // collection to the next: a half-megabyte scratch buffer and a second copy
    // per read would cost more than the read. Zeroed and one unit longer than
    // the bytes asked for, so an odd last byte gets a zero high byte and the
    // text is always terminated.
    destination.assign((count + 1) / 2 + 1, L'\0');
    DWORD bytesRead = 0;
    if (!::ReadFile(file, destination.data(), count, &bytesRead, nullptr)) {
        const DWORD error = ::GetLastError();
        destination.clear();
        // The caller reports the read's own error.
        ::SetLastError(error);
        return false;
    }
    // A zero code unit ends the text there (the zero after the read bytes at
    // the latest).
    const wchar_t* const text = destination.data();
    destination.resize(static_cast<size_t>(FindCodeUnit(text, text + destination.size(), L'\0') - text));
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
        collectedText_.clear();
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
    std::wstring backupPart;
    if (!ReadBackupLog(backupPart)) {
        return false;
    }
    // The new log is read whole, from its start (the file was just opened).
    std::wstring currentPart;
    if (!ReadLogBytes(file, currentSize_, currentPart)) {
        Log(logger_.Get(), LogLevel::Error, kReadLogsFailed, AsLogNumber(::GetLastError()));
        return false;
    }
    collectedText_ = std::move(backupPart);
    collectedText_ += currentPart;
    return true;
}

bool CQuillonLogCollector::ReadBackupLog(std::wstring& destination)
{
    destination.clear();

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
    const size_t response = FindText(collectedText_, kLoginResponse);
    if (response == std::wstring::npos) {
        Log(logger_.Get(), LogLevel::Error, kLoginResponseNotFound);
        responseSearched_ = true;
        return false;
    }
    // Mount lines before the answer belong to an earlier log-on. (Always true.)
    (void)ParseMountedTesseras(collectedText_, response + std::size(kLoginResponse) - 1);
    responseSearched_ = true;
    return true;
}

bool CQuillonLogCollector::ParseMountedTesseras(const std::wstring& text, size_t start)
{
    // All or nothing: a text whose entries cannot all be kept adds none, so
    // that the service log still gets its chance.
    const size_t kept = tesseraSpans_.size();
    try {
        std::wstring path;
        std::wstring id;
        size_t position = start;
        while (ExtractMountEntry(text, position, path, id, position)) {
            Log(logger_.Get(), LogLevel::Info, kFoundTesseraPath, path.c_str());
            Log(logger_.Get(), LogLevel::Info, kFoundTesseraId, id.c_str());
            AddTessera(id, path);
        }
    } catch (...) {
        tesseraSpans_.resize(kept);
        throw;
    }
    return true;
}

void CQuillonLogCollector::AddTessera(const std::wstring& id, const std::wstring& path)
{
    const size_t length = id.size() + path.size();
    if (tesseraBlocks_.empty() || tesseraBlocks_.back().capacity() - tesseraBlocks_.back().size() < length) {
        std::wstring block;
        block.reserve(std::max(length, kTesseraBlockChars));
        tesseraBlocks_.push_back(std::move(block));
    }
    std::wstring& block = tesseraBlocks_.back();
    const TesseraSpan span{tesseraBlocks_.size() - 1, block.size(), id.size(), path.size()};
    block += id;
    block += path;
    tesseraSpans_.push_back(span);
}

std::vector<TesseraEntry> CQuillonLogCollector::GetTesseras() const
{
    std::vector<TesseraEntry> tesseras;
    tesseras.reserve(tesseraSpans_.size());
    for (const TesseraSpan& span : tesseraSpans_) {
        const std::wstring& block = tesseraBlocks_[span.block];
        tesseras.push_back(TesseraEntry{block.substr(span.idStart, span.idLength),
                                        block.substr(span.idStart + span.idLength, span.pathLength)});
    }
    return tesseras;
}

bool CQuillonLogCollector::ExtractMountEntry(const std::wstring& text, size_t start, std::wstring& path,
                                             std::wstring& id, size_t& next)
{
    // A mount line ends in "MOUNTED-READ;<path>;<id>\r\n".
    // Over a whole parse each search below covers the collected text once:
    // they go eight units at a time rather than the runtime's one.
    const size_t token = FindText(text, kMountTokenText, start);
    if (token == std::wstring::npos) {
        return false;
    }
    const size_t pathStart = token + std::size(kMountToken) - 1;
    if (pathStart >= text.size()) {
        return false;
    }
    const size_t separator = FindText(text, kPathEnd, pathStart);
    if (separator == std::wstring::npos) {
        return false;
    }
    // A last line without its line end may still be being written: not taken.
    const size_t lineEnd = FindText(text, kLineEnd, separator);
    if (lineEnd == std::wstring::npos) {
        return false;
    }
    path.assign(text, pathStart, separator - pathStart);
    id.assign(text, separator + 1, lineEnd - separator - 1);
    next = lineEnd;
    return true;
}

}  // namespace zeph
