#include "quillon_event.h"

#include <gtest/gtest.h>

namespace zeph {
namespace {

using Kind = QuillonEventKind;

TEST(ClassifyEventMessageTest, FirstMatchingRuleDecidesAndPrefixesStandAtTheStart)
{
    const struct {
        const wchar_t* message;
        Kind kind;
    } cases[] = {
        {L"User is logging in: CORP\\alice", Kind::LogOn},
        {L" User is logging in", Kind::Other},
        {L"user is logging in", Kind::Other},
        {L"User is logging off", Kind::LogOff},
        {L"User is logging out (session 2)", Kind::LogOff},
        {L"Response 200 from Manager\r\nMOUNTED-READ;C:\\T\\a.vhdx;a1\r\n", Kind::LogOnResponse},
        {L"Response received from Manager for LOGIN request", Kind::LogOnResponse},
        {L"Response received from Manager for LOGOFF request", Kind::Other},
        {L"Last volume loaded", Kind::AllDone},
        {L"All volumes finished processing", Kind::AllDone},
        {L"New volume event (mounted): \\\\?\\Volume{1} (VolumeType 2)", Kind::VolumesReady},
        {L"New volume event (mounted): \\\\?\\Volume{1} (VolumeType 1)", Kind::Other},
        {L"New volume finished processing, VolumeType: 2", Kind::VolumesReady},
        {L"New volume finished processing, VolumeType: 1", Kind::Other},
        // The log-on test comes before the response test, whatever else the message holds.
        {L"User is logging in after Response 200 from Manager", Kind::LogOn},
        {L"", Kind::Other},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ClassifyEventMessage(c.message), c.kind) << c.message;
    }
}

}  // namespace
}  // namespace zeph
