// The layering service's log and registry values, any bytes and any types:
// a log-on, whatever the service writes to its log (rotated or not between
// the log-on and the collection, cut anywhere, of any size around the read
// limit), then the all-done event that makes the metric search the log. The
// Tesseras reported are exactly the mount lines after the manager's response
// phrase in what was written since the log-on; the manager's host is that of
// a well-formed Manager1 string.
#include "corpus.h"
#include "layering_env.h"
#include "layering_model.h"
#include "target.h"

#include <gtest/gtest.h>

#include <optional>

namespace zeph::fuzz {

namespace {

constexpr wchar_t kMetric[] = L"eventlog|eventlog_quillon";
constexpr wchar_t kPublisher[] = L"drovesvc";
constexpr wchar_t kLogOn[] = L"User is logging in: CORP\\jdoe (session 2)";
constexpr wchar_t kAllDone[] = L"All volumes finished processing for CORP\\jdoe";
constexpr ULONGLONG kLogOnTime = 133601473314180000ull;  // 2024-05-14 08:02:11.418 UTC
constexpr ULONGLONG kAllDoneTime = kLogOnTime + 25370000;

constexpr wchar_t kResponsePhrase[] = L"Manager status 200 response";
constexpr size_t kReadLimit = 0x80000;  // bytes one read of the log may ask for
constexpr size_t kMostValueBytes = 70000;
// Stands for the service's install folder in a custom ImagePath.
constexpr wchar_t kInstallMarker[] = L"<install>";

// What happens to the log between the log-on and the all-done event.
enum class After : uint64_t {
    Appended = 0,         // the service writes on
    Rotated = 1,          // moved to the backup part way, the rest in a new log
    RotatedNoNewLog = 2,  // moved to the backup, no new log yet
    Removed = 3,          // deleted; a stale backup may stand
};
constexpr uint64_t kAfterMask = 0x3;
constexpr uint64_t kLogBefore = 0x4;     // the log exists at the log-on
constexpr uint64_t kStaleBackup = 0x8;   // a backup exists at the log-on
constexpr uint64_t kCustomImage = 0x10;  // ImagePath is the field's value, not the service's own
constexpr uint64_t kManager = 0x20;      // Manager1 exists

struct LogFile {
    bool exists = false;
    std::string bytes;
};

// ReadLogBytes as documented: at most the read limit, the bytes taken as
// UTF-16LE (an odd last byte as a unit of its own), cut at the first zero unit.
std::optional<std::wstring> Read(const std::string& bytes, size_t offset, size_t count)
{
    if (count > kReadLimit) {
        return std::nullopt;
    }
    std::string part = bytes.substr(offset, count);
    if (part.size() % 2 != 0) {
        part += '\0';
    }
    return BeforeNul(BytesText(part));
}

std::optional<std::wstring> ReadBackup(const LogFile& backup, size_t beginSize)
{
    if (!backup.exists) {
        return std::nullopt;
    }
    if (backup.bytes.size() <= beginSize) {
        return std::wstring();  // smaller: not the log of this cycle; equal: nothing new
    }
    return Read(backup.bytes, beginSize, backup.bytes.size() - beginSize);
}

// The text the collector must gather since the log-on.
std::optional<std::wstring> Collected(const LogFile& log, const LogFile& backup, size_t beginSize)
{
    if (!log.exists) {
        return ReadBackup(backup, beginSize);
    }
    const size_t size = log.bytes.size();
    if (size == beginSize) {
        return std::wstring();
    }
    if (size > beginSize) {
        return Read(log.bytes, beginSize, size - beginSize);
    }
    const auto backupPart = ReadBackup(backup, beginSize);
    const auto currentPart = Read(log.bytes, 0, size);
    if (!backupPart || !currentPart) {
        return std::nullopt;
    }
    return *backupPart + *currentPart;
}

// The folder the collector derives from ImagePath's data: text to its first
// zero unit (at most 2046 bytes are read), quotes removed, cut at the last
// backslash, "\Logs\" appended.
std::optional<std::wstring> LogFolderOf(std::string data)
{
    if (data.size() > 2046) {
        return std::nullopt;
    }
    data.resize(2048, '\0');
    std::wstring folder = BeforeNul(BytesText(data));
    std::erase(folder, L'"');
    if (const size_t separator = folder.rfind(L'\\'); separator != std::wstring::npos) {
        folder.erase(separator);
    }
    return folder + L"\\Logs\\";
}

std::optional<std::wstring> ManagerHostOf(DWORD type, const std::string& data)
{
    if ((type != REG_SZ && type != REG_EXPAND_SZ) || data.size() < 2 || data.size() % 2 != 0 ||
        data[data.size() - 1] != 0 || data[data.size() - 2] != 0) {
        return std::nullopt;
    }
    const std::wstring value = BeforeNul(BytesText(data));
    return value.substr(0, value.find(L':'));
}

// Sets a value to exactly these bytes. The registry counts a string's
// terminator that its writer left out when one follows the data, so none does.
void SetExactValue(const RedirectedKey& registry, const wchar_t* key, const wchar_t* name, DWORD type,
                   const std::string& data)
{
    const std::string padded = "\xFF\xFF" + data + "\xFF\xFF";
    registry.SetValue(key, name, type, padded.data() + 2, static_cast<DWORD>(data.size()));
}

std::string Utf16(const std::wstring& text)
{
    return TextBytes(text);
}

std::string Terminated(const std::wstring& text)
{
    return TextBytes(text + L'\0');
}

class ServiceLog final : public Target {
public:
    const char* Name() const override { return "ServiceLog"; }

    std::vector<Input> Seeds() override
    {
        const std::wstring& log = DemoCorpus().serviceLog;
        const size_t logOn = std::min(log.find(L"Log-on of"), log.size());
        const std::string before = Utf16(log.substr(0, logOn));
        const std::string written = Utf16(log.substr(logOn));
        const size_t phrase = written.find(Utf16(kResponsePhrase));
        const std::string imagePath = Utf16(L"\"" + std::wstring(kInstallMarker) + L"\\drovesvc.exe\"");
        const auto seed = [&](uint64_t mode, uint64_t split = 0) {
            Input input;
            input.SetNumber("mode", mode | kManager)
                .SetBytes("before", before)
                .SetBytes("written", written)
                .SetNumber("split", split)
                .SetBytes("stale", before.substr(0, before.size() / 2))
                .SetBytes("imagePath", imagePath)
                .SetNumber("imagePathType", REG_EXPAND_SZ)
                .SetBytes("manager", Terminated(L"qmgr01.corp.example:8443"))
                .SetNumber("managerType", REG_SZ);
            return input;
        };
        std::vector<Input> seeds = {
            seed(kLogBefore),
            seed(kLogBefore | static_cast<uint64_t>(After::Rotated), phrase + 12),  // the phrase split in two
            seed(kLogBefore | static_cast<uint64_t>(After::Rotated), phrase + 13),  // and a unit split too
            seed(kLogBefore | static_cast<uint64_t>(After::RotatedNoNewLog), written.size()),
            seed(static_cast<uint64_t>(After::Removed) | kStaleBackup),
            seed(0),
            seed(kLogBefore | kCustomImage),
        };
        // A log-on's text at the read limit, and a byte over it.
        std::string full = written;
        while (full.size() < kReadLimit) {
            full.insert(0, before);
        }
        seeds.push_back(seed(kLogBefore).SetBytes("written", full.substr(full.size() - kReadLimit)));
        seeds.push_back(seed(kLogBefore).SetBytes("written", full.substr(full.size() - kReadLimit) + "\r"));
        // A byte-order mark, which the service never writes, and values of other types.
        seeds.push_back(seed(0).SetBytes("written", "\xFF\xFE" + written));
        seeds.push_back(seed(kLogBefore).SetNumber("managerType", REG_DWORD).SetBytes("manager", "\x2A\0\0\0"));
        seeds.push_back(seed(kLogBefore).SetBytes("manager", Utf16(L"qmgr01")));
        seeds.push_back(seed(kLogBefore).SetBytes("manager", Terminated(L":8443")));
        seeds.push_back(seed(kLogBefore | kCustomImage).SetNumber("imagePathType", REG_BINARY));
        seeds.push_back(
            seed(kLogBefore | kCustomImage).SetBytes("imagePath", Utf16(std::wstring(kInstallMarker) + L"\\d.exe")));
        return seeds;
    }

    Dictionary Pieces() override
    {
        Dictionary pieces;
        pieces.texts = {DemoCorpus().serviceLog,
                        kResponsePhrase,
                        L"MOUNTED-READ;",
                        L";",
                        L"\r\n",
                        L"\xFEFF",
                        kInstallMarker,
                        L"\"",
                        L"\\",
                        L":"};
        pieces.bytes = {std::string("\xFF\xFE"), std::string("\xFE\xFF"), std::string("\xEF\xBB\xBF"),
                        std::string(1, '\0')};
        pieces.byteSizes = {0, 1, 2, 3, 2046, 2048, 65535, 65536, kReadLimit - 2, kReadLimit - 1, kReadLimit};
        return pieces;
    }

    void Steer(Input& input, Mutator& mutator) override
    {
        if (mutator.OneIn(4)) {
            input.SetNumber("mode", input.Number("mode") ^ (uint64_t{1} << mutator.Below(6)));
        }
        if (mutator.OneIn(4)) {  // a rotation in the middle of the response phrase
            const size_t phrase = input.Bytes("written").find(Utf16(kResponsePhrase));
            if (phrase != std::string::npos) {
                input.SetNumber("split", phrase + mutator.Below(2 * std::size(kResponsePhrase)));
            }
        }
        for (const char* type : {"imagePathType", "managerType"}) {
            if (mutator.OneIn(8)) {
                input.SetNumber(type, mutator.OneIn(2) ? mutator.Below(12) : mutator.Below(uint64_t{1} << 32));
            }
        }
    }

    void Run(const Input& input) override
    {
        const uint64_t mode = input.Number("mode");
        const After after = static_cast<After>(mode & kAfterMask);
        const std::string written = input.Bytes("written");
        const size_t split = static_cast<size_t>(input.Number("split") % (written.size() + 1));
        const bool customImage = (mode & kCustomImage) != 0;

        test::ServiceInstall install(!customImage);
        std::optional<std::wstring> folder = install.LogsFolder();
        if (customImage) {
            std::wstring text = BytesText(input.Bytes("imagePath").substr(0, kMostValueBytes));
            for (size_t at; (at = text.find(kInstallMarker)) != std::wstring::npos;) {
                text.replace(at, std::size(kInstallMarker) - 1, install.Folder());
            }
            std::string data = TextBytes(text);
            if (input.Bytes("imagePath").size() % 2 != 0) {
                data += input.Bytes("imagePath").back();
            }
            SetExactValue(install.Registry(), test::ServiceInstall::kServiceKey, L"ImagePath",
                          static_cast<DWORD>(input.Number("imagePathType")), data);
            folder = LogFolderOf(data);
        }
        std::optional<std::wstring> managerHost;
        if ((mode & kManager) != 0) {
            const std::string data = input.Bytes("manager").substr(0, kMostValueBytes);
            const auto type = static_cast<DWORD>(input.Number("managerType"));
            SetExactValue(install.Registry(), test::ServiceInstall::kParametersKey, L"Manager1", type, data);
            managerHost = ManagerHostOf(type, data);
        }
        LogFile log;
        LogFile backup;
        const auto write = [&](const wchar_t* name, LogFile& file, const std::string& bytes, bool append) {
            install.WriteBytes(name, bytes.data(), static_cast<DWORD>(bytes.size()), append);
            file.bytes = append ? file.bytes + bytes : bytes;
            file.exists = true;
        };
        if ((mode & kStaleBackup) != 0) {
            write(L"drovesvc_bak.log", backup, input.Bytes("stale"), false);
        }
        if ((mode & kLogBefore) != 0) {
            write(L"drovesvc.log", log, input.Bytes("before"), false);
        }
        const size_t beginSize = log.bytes.size();

        const ProviderSession session(kMetric, kPublisher);
        session.Write({kLogOn, kLogOnTime, 0, 1});
        session.WaitForDeliveries();
        write(L"drovesvc.log", log, written.substr(0, split), true);
        switch (after) {
        case After::Appended:
            write(L"drovesvc.log", log, written.substr(split), true);
            break;
        case After::Rotated:
        case After::RotatedNoNewLog:
            install.RotateLog();
            backup = std::exchange(log, LogFile{});
            if (after == After::Rotated) {
                write(L"drovesvc.log", log, written.substr(split), false);
            }
            break;
        case After::Removed:
            install.RemoveLog();
            log = LogFile{};
            break;
        }
        session.Write({kAllDone, kAllDoneTime, 0, 2});
        session.WaitForDeliveries();
        const std::vector<SinkWrite> writes = session.Query();

        std::vector<Tessera> tesseras;
        if (const auto text = Collected(log, backup, beginSize)) {
            if (const size_t phrase = text->find(kResponsePhrase); phrase != std::wstring::npos) {
                AppendMountEntries(*text, phrase + std::size(kResponsePhrase) - 1, tesseras);
            }
        }
        const auto expected = [&](const std::vector<Tessera>& found) {
            LayeringModel model;
            model.Deliver({kLogOn, kLogOnTime, 0, 1});
            model.Deliver({kAllDone, kAllDoneTime, 0, 2}, found);
            return model.Query(managerHost);
        };
        // An ImagePath that names the folder otherwise (a relative part, a trailing
        // blank the file system drops) may or may not reach the log.
        if (folder != install.LogsFolder() && SameWrites(writes, expected({}))) {
            return;
        }
        ExpectWrites(writes, expected(tesseras));
    }
};

}  // namespace

TEST(Fuzz, ServiceLog)
{
    ServiceLog target;
    Fuzz(target);
}

}  // namespace zeph::fuzz
