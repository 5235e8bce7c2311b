/* Debug switches, ERROR counting and log output. */
#include <gtest/gtest.h>

#include "fake_platform.h"
#include "tbdl_bas.h"
#include "dbg/tbdl_dbg_priv.h"

namespace {

class DbgTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::Reset();
        ASSERT_EQ(0u, TBDL_DBG_Init());
    }
    void TearDown() override
    {
        TBDL_BAS_SetAllocFault(0, 0);
        TBDL_DBG_Fini();
    }
    static u32 Set(u16 usUndo, u32 uiType)
    {
        TBDL_CFG_OPER_DATA_S stData{};
        memcpy(stData.aucData, &uiType, sizeof(uiType));
        return TBDL_DBG_SetDebug(usUndo, nullptr, 0, stData.aucData);
    }
    /* Total, then each slot's format and count, up to the first empty slot. */
    static std::string Counts()
    {
        std::string str = std::to_string(g_stTbdlLogVar.uiErrTotal);
        for (int i = 0; i < 256 && g_apcTbdlErrStr[i] != nullptr; i++) {
            str += std::string("|") + g_apcTbdlErrStr[i] + "=" + std::to_string(g_ausTbdlErrCnt[i]);
        }
        return str;
    }
};

TEST_F(DbgTest, InitOpensTheLogAndFiniClosesItAndForgetsTheCounts)
{
    auto opens = fake::CallsOf("openlog");
    ASSERT_EQ(1u, opens.size());
    EXPECT_EQ("TBDL", opens[0].text);
    EXPECT_EQ((std::vector<uint64_t>{4, 184}), opens[0].args);
    TBDL_DBG_Output(TBDL_DBG_ERROR, "a\r\n");
    TBDL_DBG_Fini();
    EXPECT_EQ(std::make_tuple(false, std::string("TBDL"), std::string("0"), u16(0)),
              std::make_tuple(fake::LogOpen(), fake::CallsOf("closelog2").at(0).text, Counts(), g_ausTbdlErrCnt[0]));
    TBDL_DBG_Init();
}

TEST_F(DbgTest, ErrorsAreCountedPerFormatInFirstUseOrderWhileOutputIsOff)
{
    TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to save member (%d) to DBM.\r\n", 7);
    TBDL_DBG_Output(TBDL_DBG_ERROR, "Other (%d).\r\n", 1);
    TBDL_DBG_Output(TBDL_DBG_ERROR, "Failed to save member (%d) to DBM.\r\n", 9);
    TBDL_DBG_Output(TBDL_DBG_EVENT, "Event (%d).\r\n", 1);
    TBDL_DBG_Output(5, "Nothing (%d).\r\n", 1);
    EXPECT_EQ("3|Failed to save member (%d) to DBM.\r\n=2|Other (%d).\r\n=1", Counts());
    EXPECT_EQ(0u, fake::CountOf("vsyslog2"));

    /* A slot counter wraps from 65535 to 0. */
    g_ausTbdlErrCnt[1] = 65535;
    TBDL_DBG_Output(TBDL_DBG_ERROR, "Other (%d).\r\n", 2);
    EXPECT_EQ("4|Failed to save member (%d) to DBM.\r\n=2|Other (%d).\r\n=0", Counts());
}

/* An empty format is counted but never output; a failed copy only skips
 * its count. Output carries the type name and the log priority. */
TEST_F(DbgTest, SwitchedOnOutputReachesTheLog)
{
    ASSERT_EQ(0u, Set(0, TBDL_DBG_EVENT));
    TBDL_DBG_Output(TBDL_DBG_ERROR, "error %d\r\n", 1);
    TBDL_DBG_Output(TBDL_DBG_EVENT, "Sent an HA message (Type %d).\r\n", 1);
    TBDL_DBG_Output(2, "never %d\r\n", 2);
    auto calls = fake::CallsOf("vsyslog2");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(0x010000BFu, calls[0].args.at(0));
    EXPECT_EQ("TBDL|EVENT|Sent an HA message (Type 1).\r\n", calls[0].text);

    ASSERT_EQ(0u, Set(0, TBDL_DBG_ERROR));
    const char *pcEmpty = "";
    TBDL_DBG_Output(TBDL_DBG_ERROR, pcEmpty, 0);
    TBDL_BAS_SetAllocFault(0, 1);
    TBDL_DBG_Output(TBDL_DBG_ERROR, "third (%d)\r\n", 1);
    TBDL_DBG_Output(TBDL_DBG_ERROR, "fourth\r\n");
    EXPECT_EQ("4|error %d\r\n=1|=1|fourth\r\n=1", Counts());
    EXPECT_EQ((std::vector<std::string>{"EVENT Sent an HA message (Type 1).\r\n", "ERROR third (1)\r\n",
                                        "ERROR fourth\r\n"}),
              fake::LogLines());
}

TEST_F(DbgTest, SwitchCommandsTheirUndoAndClearRunning)
{
    const struct { u16 usUndo; u32 uiType, uiResult, uiSwitchAfter; } steps[] = {
        {1, TBDL_DBG_EVENT, 0, 0},       /* undo of an off type: accepted, no change */
        {0, TBDL_DBG_ALL, 0, 3},         /* all sets both bits */
        {1, TBDL_DBG_EVENT, 0, 1},       /* undo EVENT leaves ERROR on */
        {0, 3, TBDL_E_INVALID_PARAM, 1}, /* no such type: nothing changes */
        {1, 0xFFFFFFFFu, TBDL_E_INVALID_PARAM, 1},
        {0, TBDL_DBG_EVENT, 0, 3},
        {1, TBDL_DBG_ALL, 0, 0}, /* undo all clears the word */
        {0, TBDL_DBG_ERROR, 0, 1},
    };
    for (size_t i = 0; i < std::size(steps); i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(steps[i].uiResult, Set(steps[i].usUndo, steps[i].uiType));
        const u32 w = steps[i].uiSwitchAfter;
        EXPECT_EQ(std::make_tuple(w, w & 1u, (w >> 1) & 1u),
                  std::make_tuple(TBDL_DBG_GetDebug(), u32(TBDL_DBG_IsOpen(TBDL_DBG_ERROR)),
                                  u32(TBDL_DBG_IsOpen(TBDL_DBG_EVENT))));
    }
    EXPECT_EQ(0, TBDL_DBG_IsOpen(2));

    ASSERT_EQ(0u, Set(0, TBDL_DBG_ALL));
    TBDL_DBG_Output(TBDL_DBG_ERROR, "kept\r\n");
    TBDL_DBG_ClearRunning();
    EXPECT_EQ(0u, TBDL_DBG_GetDebug());
    EXPECT_EQ("1|kept\r\n=1", Counts());
}

} // namespace
