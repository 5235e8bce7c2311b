/* Board log lines written by vsyslog2. */
#include <gtest/gtest.h>

#include <cctype>
#include <cstdarg>
#include <string>

#include "plat_log.h"
#include "plat_test_env.h"

namespace {

using plattest::Lines;
using plattest::ReadFile;
using plattest::TempChassis;

void Log(const char *ident, const char *type, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsyslog2(0x010000BF, ident, type, format, args);
    va_end(args);
}

/* "<UTC time with microseconds> <board> <rest>": the rest, or "?" when the
 * line has another form. */
std::string RestOf(const std::string &line, const std::string &board)
{
    static const std::string kForm = "dddd-dd-ddTdd:dd:dd.ddddddZ ";
    bool ok = line.size() > kForm.size() + board.size() &&
              line.compare(kForm.size(), board.size() + 1, board + " ") == 0;
    for (size_t i = 0; ok && i < kForm.size(); ++i) {
        ok = kForm[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == kForm[i];
    }
    return ok ? line.substr(kForm.size() + board.size() + 1) : "?";
}

TEST(BoardLog, OneLinePerCallWithTimeBoardIdentityTypeAndText)
{
    TempChassis chassis(1);
    Log("TBDL", "EVENT", "Bundle %d is %s.\r\n", 7, "up");
    Log("TBDL", "ERROR", "plain newline\n");
    Log("TBDL", "ERROR", "no line end");
    Log("TBDL", "EVENT", "%s", "");
    std::string text = ReadFile(tbdl::plat::BoardLogPathOf(chassis.Dir(), 1));
    std::vector<std::string> rests;
    for (const std::string &line : Lines(text)) {
        rests.push_back(RestOf(line, "board1"));
    }
    EXPECT_EQ(rests, (std::vector<std::string>{"TBDL EVENT Bundle 7 is up.", "TBDL ERROR plain newline",
                                               "TBDL ERROR no line end", "TBDL EVENT "}))
        << text;
    EXPECT_EQ(text.back(), '\n');
}

TEST(BoardLog, CloseReopensAndOutsideAChassisLinesGoToStderr)
{
    {
        TempChassis chassis;
        std::string path = tbdl::plat::BoardLogPathOf(chassis.Dir(), 0);
        Log("TBDL", "EVENT", "first\r\n");
        ASSERT_EQ(rename(path.c_str(), (path + ".old").c_str()), 0);
        closelog2("TBDL");
        Log("TBDL", "EVENT", "second\r\n");
        EXPECT_NE(ReadFile(path + ".old").find("first"), std::string::npos);
        EXPECT_NE(ReadFile(path).find("TBDL EVENT second"), std::string::npos);
    }
    TempChassis::Reload(); /* no chassis now */
    testing::internal::CaptureStderr();
    Log("TBDL", "ERROR", "to stderr %u\r\n", 3u);
    std::string text = testing::internal::GetCapturedStderr();
    ASSERT_EQ(Lines(text).size(), 1u) << text;
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(RestOf(text.substr(0, text.size() - 1), "board0"), "TBDL ERROR to stderr 3");
}

} // namespace
