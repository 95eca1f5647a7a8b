// How long each phase of a log-on took, as zeph-host prints it after the layering
// metric's time stamps: stamps missing, 0, equal or out of order are said so, never
// turned into a duration; the JSON line carries the same phases, null where unknown.
#include "host_process.h"
#include "value_format.h"

#include <gtest/gtest.h>

namespace zeph::test {
namespace {

using host::MetricQuery;

SinkWrite Stamp(const wchar_t* key, ULONGLONG milliseconds)
{
    return SinkWrite{key, L"quillon", VT_UI8, L"", milliseconds, S_OK};
}

// The table's lines after its values.
std::vector<std::wstring> PhaseLines(const MetricQuery& query)
{
    const auto lines = SplitLines(host::TableLines(query));
    const auto heading = std::find(lines.begin(), lines.end(), L"  log-on phases, from the time stamps above:");
    return heading == lines.end() ? std::vector<std::wstring>{} : std::vector<std::wstring>(heading + 1, lines.end());
}

TEST(LogonPhases, UnknownAndOddPhasesAreSaidSo)
{
    const SYSTEMTIME now = {2024, 5, 2, 14, 8, 2, 11, 418};
    // The response not seen (the provider repeats the log-on's stamp), volumes ready written as 0.
    MetricQuery query{
        3,
        L"eventlog|eventlog_quillon",
        S_OK,
        {Stamp(L"quillon|logon_timestamp", 1700000010987), Stamp(L"quillon|logon_response_timestamp", 1700000010987),
         Stamp(L"quillon|volumes_ready_timestamp", 0), Stamp(L"quillon|all_done_timestamp", 1700003611988)}};
    EXPECT_EQ(PhaseLines(query),
              (std::vector<std::wstring>{
                  L"    log-on to the manager's response                   0.000 s (equal stamps: a moment the "
                  L"provider has not seen takes the stamp before it)",
                  L"    the manager's response to volumes ready  not known (the time stamp for volumes ready is 0)",
                  L"    volumes ready to all done                not known (the time stamp for volumes ready is 0)",
                  L"    the whole log-on                         1 h 0 min 1.001 s",
              }));
    const auto json = SplitLines(host::JsonLines(query, now));
    ASSERT_EQ(json.size(), 5u);
    EXPECT_EQ(json[4],
              L"{\"query\":3,\"metric\":\"eventlog|eventlog_quillon\",\"result\":\"0x00000000\",\"values\":4,"
              L"\"time\":\"2024-05-14T08:02:11.418Z\",\"phases\":{\"logon_to_response_ms\":0,"
              L"\"response_to_volumes_ready_ms\":null,\"volumes_ready_to_all_done_ms\":null,"
              L"\"logon_to_all_done_ms\":3601001}}");

    // Two stamps not written (a failed write ends the provider's stamps), all done before log-on.
    query.values = {Stamp(L"quillon|logon_timestamp", 2000), Stamp(L"quillon|all_done_timestamp", 1500)};
    EXPECT_EQ(PhaseLines(query),
              (std::vector<std::wstring>{
                  L"    log-on to the manager's response         not known (no time stamp for the manager's "
                  L"response)",
                  L"    the manager's response to volumes ready  not known (no time stamp for the manager's "
                  L"response)",
                  L"    volumes ready to all done                not known (no time stamp for volumes ready)",
                  L"    the whole log-on                         -0.500 s (all done is stamped before log-on)",
              }));

    // No stamp at all: no phases, in the table or the JSON.
    query.values = {SinkWrite{L"quillon|mgr", L"quillon|mgr", VT_BSTR, L"mgr", 0, S_OK}};
    EXPECT_TRUE(PhaseLines(query).empty());
    EXPECT_EQ(host::JsonLines(query, now).find(L"phases"), std::wstring::npos);
}

}  // namespace
}  // namespace zeph::test
