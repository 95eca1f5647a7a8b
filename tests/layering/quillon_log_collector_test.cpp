// The service-log collector on real files in a scratch service installation.
#include "layering/quillon_log_collector.h"
#include "layering_env.h"
#include "support/host_logger.h"

#include <gtest/gtest.h>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using test::ServiceInstall;
using Texts = std::vector<std::wstring>;
using Tesseras = std::vector<TesseraEntry>;

class CollectorTest : public ::testing::Test {
protected:
    Texts TakeLines()  // lines since the last call
    {
        Texts lines = logger_->Texts();
        logger_->Clear();
        return lines;
    }
    bool LoggedError(const std::wstring& text) const { return logger_->Has(LogLevel::Error, text); }
    // Collects and returns the text, expecting the collect to give ok.
    std::wstring Collected(bool ok = true)
    {
        EXPECT_EQ(collector_.CollectLog(), ok);
        return std::wstring(collector_.CollectedText());
    }

    ServiceInstall service_;
    ComPtr<HostLogger> logger_ = Adopt(new HostLogger(0x7));
    CQuillonLogCollector collector_{logger_.Get()};
};

TEST_F(CollectorTest, PrepareFindsTheLogsFolderBesideTheQuotedImagePathAndTakesTheLogSize)
{
    service_.WriteLog(L"0123456789");
    ASSERT_TRUE(collector_.PrepareCollectLog());
    EXPECT_EQ(collector_.LogDirectory(), service_.LogsFolder());
    EXPECT_EQ(collector_.BeginSize(), 20u);
    const std::wstring imagePath = L"drovesvc image path: \"" + service_.Folder() + L"\\drovesvc.exe\"";
    EXPECT_EQ(TakeLines(),
              (Texts{L"PrepareCollectLog", imagePath, imagePath, L"drovesvc log path: " + service_.LogsFolder(),
                     L"Got log file(drovesvc.log) size: 20"}));

    // Every quote goes, and the last path part.
    const std::pair<const wchar_t*, const wchar_t*> folders[] = {
        {L"C:\\Quillon\\Agent\\drovesvc.exe", L"C:\\Quillon\\Agent\\Logs\\"},
        {L"\"C:\\Quil\"lon\\drovesvc.exe\" -service", L"C:\\Quillon\\Logs\\"},
        {L"drovesvc.exe", L"drovesvc.exe\\Logs\\"}};
    for (const auto& [imagePath, folder] : folders) {
        service_.Registry().SetString(ServiceInstall::kServiceKey, L"ImagePath", imagePath);
        (void)collector_.PrepareCollectLog();  // the folder does not exist; only its name matters here
        EXPECT_EQ(collector_.LogDirectory(), folder) << imagePath;
    }
}

TEST_F(CollectorTest, LogThatExistsButCannotBeOpenedFailsWithoutTheBackup)
{
    service_.WriteLog(L"earlier\r\n");
    ASSERT_TRUE(collector_.PrepareCollectLog());
    service_.RemoveLog();
    ASSERT_TRUE(::CreateDirectoryW((service_.LogsFolder() + L"drovesvc.log").c_str(), nullptr));
    service_.WriteBackup(L"earlier\r\nbackup\r\n");
    TakeLines();
    EXPECT_FALSE(collector_.CollectLog());
    EXPECT_EQ(collector_.CollectedText(), L"");
    EXPECT_EQ(TakeLines(), (Texts{L"CollectLog", L"Failed to open log file, error: 5"}));
    EXPECT_FALSE(collector_.PrepareCollectLog());
    EXPECT_TRUE(LoggedError(L"Failed to open log file, error: 5"));
    EXPECT_EQ(collector_.BeginSize(), 18u) << "left as it was";
}

TEST(CollectorRegistryTest, PrepareFailsWithTheRegistryErrorCode)
{
    ServiceInstall service(false);
    const auto logger = Adopt(new HostLogger(0x7));
    CQuillonLogCollector collector(logger.Get());
    EXPECT_FALSE(collector.PrepareCollectLog());
    EXPECT_TRUE(logger->Has(LogLevel::Error, L"Failed to open registry key for drovesvc, error: 2"));

    service.Registry().SetString(ServiceInstall::kServiceKey, L"DisplayName", L"drovesvc");
    logger->Clear();
    EXPECT_FALSE(collector.PrepareCollectLog());
    EXPECT_EQ(logger->Texts(), (Texts{L"PrepareCollectLog", L"Failed to query value ImagePath, error: 2"}));

    // A path that does not fit the 2046 bytes asked for.
    service.Registry().SetString(ServiceInstall::kServiceKey, L"ImagePath", std::wstring(1100, L'x'));
    EXPECT_FALSE(collector.PrepareCollectLog());
    EXPECT_TRUE(logger->Has(LogLevel::Error, L"Failed to query value ImagePath, error: 234"));
}

TEST_F(CollectorTest, CollectReadsEverythingAppendedSincePrepare)
{
    ASSERT_TRUE(collector_.PrepareCollectLog());  // a log created after prepare is read from its start
    EXPECT_EQ(collector_.BeginSize(), 0u);
    EXPECT_EQ(TakeLines().back(), L"Log file not exist");
    service_.WriteLog(L"earlier\r\n");
    EXPECT_EQ(Collected(), L"earlier\r\n");
    ASSERT_TRUE(collector_.PrepareCollectLog());
    TakeLines();
    EXPECT_EQ(Collected(), L"");
    EXPECT_EQ(TakeLines(), (Texts{L"CollectLog", L"No logs collected"}));
    service_.AppendLog(L"first\r\n");
    EXPECT_EQ(Collected(), L"first\r\n");
    EXPECT_EQ(TakeLines(), (Texts{L"CollectLog", L"Read logs from drovesvc.log"}));
    service_.AppendLog(L"second\r\n");
    EXPECT_EQ(Collected(), L"first\r\nsecond\r\n");

    // An odd size at prepare: reading starts right there, at the service's next text.
    service_.AppendLogBytes("Z", 1);
    ASSERT_TRUE(collector_.PrepareCollectLog());
    EXPECT_EQ(collector_.BeginSize(), 49u);
    service_.AppendLog(L"third\r\n");
    EXPECT_EQ(Collected(), L"third\r\n");
}

TEST_F(CollectorTest, RotatedLogIsTheBackupTailThenTheWholeNewLog)
{
    const std::wstring notOurs = L"Backup log file size less than the beginning size, must error occurred, abort";
    service_.WriteLog(L"earlier line\r\n");
    ASSERT_TRUE(collector_.PrepareCollectLog());
    service_.RotateLog();  // nothing written since prepare: the backup ends where reading begins
    service_.WriteLog(L"new\r\n");
    EXPECT_EQ(Collected(), L"new\r\n");
    EXPECT_FALSE(LoggedError(notOurs));

    service_.WriteLog(L"earlier line\r\n");
    ASSERT_TRUE(collector_.PrepareCollectLog());
    service_.AppendLog(L"tail\r\n");
    service_.RotateLog();
    TakeLines();
    EXPECT_EQ(Collected(), L"tail\r\n");  // no new log yet: the backup alone
    EXPECT_EQ(TakeLines(), (Texts{L"CollectLog", L"Log file not exist", L"log is not availbe, read from backup log"}));
    service_.WriteLog(L"new\r\n");
    EXPECT_EQ(Collected(), L"tail\r\nnew\r\n");
    EXPECT_EQ(TakeLines(), (Texts{L"CollectLog", L"Read logs from drovesvc.log and drovesvc_bak.log"}));

    // A backup shorter than the log was at prepare is not ours: the new log alone, and success.
    service_.WriteBackup(L"x");
    EXPECT_EQ(Collected(), L"new\r\n");
    EXPECT_TRUE(LoggedError(notOurs));
    service_.RemoveLog();
    ASSERT_TRUE(::DeleteFileW((service_.LogsFolder() + L"drovesvc_bak.log").c_str()));
    EXPECT_EQ(Collected(false), L"");
    EXPECT_TRUE(LoggedError(L"Failed to open backup log file, error: 2"));
}

TEST_F(CollectorTest, SegmentBeyondTheReadLimitIsNotCollected)
{
    ASSERT_TRUE(collector_.PrepareCollectLog());
    service_.AppendLog(std::wstring(CQuillonLogCollector::kMaxReadBytes / 2, L'a'));
    EXPECT_EQ(Collected().size(), CQuillonLogCollector::kMaxReadBytes / 2);

    ASSERT_TRUE(collector_.PrepareCollectLog());
    service_.AppendLog(std::wstring(300000, L'b'));
    TakeLines();
    EXPECT_EQ(Collected(false), L"");
    const auto lines = logger_->Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], (LogLine{LogLevel::Error, L"Asked to read 600000 bytes, exceed max read bytes"}));
    EXPECT_TRUE(lines[3].text.starts_with(L"Failed to read from log file, error: ")) << lines[3].text;
}

TEST_F(CollectorTest, ZeroCodeUnitEndsTheTextAndAnOddLastByteIsKept)
{
    ASSERT_TRUE(collector_.PrepareCollectLog());
    // The second unit's high byte is not zero: the odd byte below lands there.
    service_.AppendLog(std::wstring(L"a\u4e00c\0def\r\n", 9));
    EXPECT_EQ(Collected(), L"a\u4e00c");

    ASSERT_TRUE(collector_.PrepareCollectLog());
    const unsigned char bytes[] = {'A', 0, 'B'};
    service_.AppendLogBytes(bytes, sizeof bytes);
    EXPECT_EQ(Collected(), L"AB");
}

TEST_F(CollectorTest, LoginResponseGivesTheMountLinesAfterItOncePerCycle)
{
    service_.WriteLog(L"MOUNTED-READ;C:\\T\\before.vhdx;b0\r\n");
    ASSERT_TRUE(collector_.PrepareCollectLog());
    service_.AppendLog(
        L"1 MOUNTED-READ;C:\\T\\stale.vhdx;s0\r\n"
        L"2 Manager status 200 response\r\n"
        L"3 MOUNTED-READ;C:\\T\\one.vhdx;id-1\r\n"
        L"4 MOUNTED-READ;C:\\T\\two.vhdx;id-2\r\n"
        L"5 MOUNTED-READ;C:\\T\\three.vhdx;id-3");
    TakeLines();
    EXPECT_TRUE(collector_.FindLoginResponse());
    const Tesseras found{{L"id-1", L"C:\\T\\one.vhdx"}, {L"id-2", L"C:\\T\\two.vhdx"}};
    EXPECT_EQ(collector_.GetTesseras(), found);
    EXPECT_EQ(TakeLines(),
              (Texts{L"CollectLog", L"Read logs from drovesvc.log", L"Find tessera path: C:\\T\\one.vhdx",
                     L"Find tessera id: id-1", L"Find tessera path: C:\\T\\two.vhdx", L"Find tessera id: id-2"}));

    // Done for this cycle: nothing is read again.
    service_.AppendLog(L"\r\n6 MOUNTED-READ;C:\\T\\four.vhdx;id-4\r\n");
    EXPECT_TRUE(collector_.FindLoginResponse());
    EXPECT_EQ(collector_.GetTesseras(), found);
    EXPECT_EQ(TakeLines(), Texts{});

    // A new cycle forgets both the list and the search.
    ASSERT_TRUE(collector_.PrepareCollectLog());
    EXPECT_EQ(collector_.GetTesseras(), Tesseras{});
    service_.AppendLog(L"Manager status 200 response MOUNTED-READ;C:\\T\\five.vhdx;id-5\r\n");
    EXPECT_TRUE(collector_.FindLoginResponse());
    EXPECT_EQ(collector_.GetTesseras(), (Tesseras{{L"id-5", L"C:\\T\\five.vhdx"}}));
}

TEST_F(CollectorTest, FailedSearchStillCountsAsDoneForTheCycle)
{
    ASSERT_TRUE(collector_.PrepareCollectLog());
    service_.AppendLog(L"MOUNTED-READ;C:\\T\\one.vhdx;id-1\r\n");
    EXPECT_FALSE(collector_.FindLoginResponse());
    EXPECT_TRUE(LoggedError(L"Failed to find login response from the log"));
    EXPECT_EQ(collector_.GetTesseras(), Tesseras{});
    TakeLines();
    service_.AppendLog(L"Manager status 200 response MOUNTED-READ;C:\\T\\two.vhdx;id-2\r\n");
    EXPECT_TRUE(collector_.FindLoginResponse());
    EXPECT_EQ(TakeLines(), Texts{});
    EXPECT_EQ(collector_.GetTesseras(), Tesseras{});

    // A collect that fails ends the cycle's search the same way.
    ASSERT_TRUE(collector_.PrepareCollectLog());
    service_.RemoveLog();
    EXPECT_FALSE(collector_.FindLoginResponse());
    EXPECT_TRUE(collector_.FindLoginResponse());
}

TEST(MountLinesTest, OnlyCompleteLinesFromTheStartPositionOnAreTaken)
{
    const struct {
        std::wstring text;
        size_t start;
        Tesseras expected;
    } cases[] = {
        {L"x MOUNTED-READ;C:\\a b\\one.vhdx;id 1\r\nMOUNTED-READ;p2;i2\r\n",
         0,
         {{L"id 1", L"C:\\a b\\one.vhdx"}, {L"i2", L"p2"}}},
        {L"x MOUNTED-READ;p1;i1\r\nMOUNTED-READ;p2;i2\r\n", 3, {{L"i2", L"p2"}}},
        {L"MOUNTED-READ;;\r\n", 0, {{L"", L""}}},
        {L"MOUNTED-READ;p1;i1", 0, {}},
        {L"MOUNTED-READ;no separator\r\n", 0, {}},
        {L"MOUNTED-READ;", 0, {}},
        {L"MOUNTED-READ:p1;i1\r\n", 0, {}},
    };
    for (const auto& c : cases) {
        CQuillonLogCollector collector(nullptr);
        EXPECT_TRUE(collector.ParseMountedTesseras(c.text, c.start));
        EXPECT_EQ(collector.GetTesseras(), c.expected) << c.text;
    }
}

}  // namespace
}  // namespace zeph
