// The decorated line printer, the telnet terminal writer and the configured log-server address.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <ctime>
#include <string>

#include "debug.h"
#include "debug_testutil.h"

using debugtest::FdCapture;
using debugtest::readFile;

namespace {

std::string dateText(time_t when) {
    struct tm local {};
    localtime_r(&when, &local);
    char text[128];
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

// Runs one debugPrint and checks its line character by character, the date being one of the
// seconds the call could have seen.
void expectLine(int level, const char* name, const char* source, int line, const char* message) {
    const time_t before = time(nullptr);
    FdCapture out;
    debugPrint(level, source, line, "%s", message);
    const std::string text = out.text();
    const time_t after = time(nullptr);
    bool matched = false;
    for (time_t t = before; t <= after && !matched; ++t) {
        matched = text == "[SLAVE][" + dateText(t) + "]" + name + ":[" + source + ",L" +
                              std::to_string(line) + "]" + message + "\n";
    }
    EXPECT_TRUE(matched) << "got: " << text;
    EXPECT_TRUE(debugtest::startsWithShape(text, "[SLAVE][####-##-## ##:##:##]")) << text;
    EXPECT_EQ(text.substr(28 + 8, 2), ":[") << "the level name is 8 characters wide";
}

class DebugPrint : public ::testing::Test {
  protected:
    void TearDown() override {
        printFilterOn = 1;
        printMaxLevel = 3;
    }
};

TEST_F(DebugPrint, LineCarriesDateLevelNamePlaceAndMessage) {
    expectLine(0, "ERROR   ", "bridge.cpp", 7, "serial port lost");
    expectLine(1, "WARNING ", "pool.cpp", 1234, "w");
    expectLine(2, "INFO    ", "", 0, "");
    expectLine(3, "DEBUG   ", "timer.cpp", -5, "tick 100%");
}

TEST_F(DebugPrint, FilterAndRangeDropLinesWithoutOutput) {
    FdCapture out;
    debugPrint(4, "x.cpp", 1, "above the table");
    debugPrint(-1, "x.cpp", 1, "below the table");
    printMaxLevel = 1;
    debugPrint(2, "x.cpp", 1, "above the maximum");
    debugPrint(3, "x.cpp", 1, "above the maximum");
    printFilterOn = 0;
    debugPrint(4, "x.cpp", 1, "still above the table");
    EXPECT_EQ(out.text(), "");
    expectLine(3, "DEBUG   ", "x.cpp", 2, "filter off");
    printFilterOn = 1;
    expectLine(1, "WARNING ", "x.cpp", 3, "at the maximum");
}

class TelnetLog : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/s2e_telnetXXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        path_ = dir_ + "/pts0";
        telnetLogPath = path_.c_str();
    }
    void TearDown() override {
        if (telnetLogOpen.load() != 0) {
            FdCapture quiet;
            telnetLogWrite("");
        }
        telnetLogPath = "/dev/pts/0";
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    std::string dir_;
    std::string path_;
};

TEST_F(TelnetLog, OpensOnceKeepsWritingAndClosesOnAnEmptyWrite) {
    FdCapture out;
    telnetLogWrite("first ");
    EXPECT_EQ(telnetLogOpen.load(), 1);
    telnetLogWrite("second\n");
    EXPECT_EQ(readFile(path_.c_str()), "first second\n") << "one stream, flushed per write";

    telnetLogWrite("");
    EXPECT_EQ(telnetLogOpen.load(), 0);
    EXPECT_EQ(telnetLogFile, nullptr);
    EXPECT_EQ(out.text(), "Close  telnet log terminal.\n");

    telnetLogWrite("reopened\n");
    EXPECT_EQ(telnetLogOpen.load(), 1);
    EXPECT_EQ(readFile(path_.c_str()), "reopened\n") << "a reopen starts the terminal afresh";
}

TEST_F(TelnetLog, UnopenableTerminalIsReportedOnEveryWrite) {
    const std::string missing = dir_ + "/no/such/pts";
    telnetLogPath = missing.c_str();
    FdCapture out;
    telnetLogWrite("lost");
    telnetLogWrite("lost again");
    EXPECT_EQ(telnetLogOpen.load(), 0);
    EXPECT_EQ(out.text(), "Open " + missing + " failed\nOpen " + missing + " failed\n");
    telnetLogPath = path_.c_str();
}

// The board's own terminal, only in ways that can neither write to someone's terminal nor create
// anything under /dev.
TEST(TelnetLogDefault, BoardTerminalEmptyWriteClosesOrAbsentTerminalIsReported) {
    ASSERT_STREQ(telnetLogPath, "/dev/pts/0");
    ASSERT_EQ(telnetLogOpen.load(), 0);
    struct stat st {};
    if (stat("/dev/pts/0", &st) != 0) {
        // Creating the node would need /dev/pts to be a plain directory; on devpts (or with no
        // /dev/pts at all) the open can only fail.
        struct statfs fs {};
        const bool noDir = statfs("/dev/pts", &fs) != 0;
        if (!noDir && fs.f_type != 0x1cd1 /* devpts */) GTEST_SKIP() << "/dev/pts not devpts";
        FdCapture out;
        telnetLogWrite("probe");
        EXPECT_EQ(out.text(), "Open /dev/pts/0 failed\n");
        EXPECT_EQ(telnetLogOpen.load(), 0);
        return;
    }
    // Opening a terminal as a session leader without one would make it ours: stay out of that.
    if (getsid(0) == getpid()) GTEST_SKIP() << "session leader";
    if (access("/dev/pts/0", W_OK) != 0) GTEST_SKIP() << "/dev/pts/0 not writable";
    FdCapture out;
    telnetLogWrite("");  // writes no byte to the terminal
    EXPECT_EQ(out.text(), "Close  telnet log terminal.\n");
    EXPECT_EQ(telnetLogOpen.load(), 0);
    EXPECT_EQ(telnetLogFile, nullptr);
}

TEST(LogServer, AppliesAValidPairOnceAndRefusesUnusableOnes) {
    const uint32_t defaultIp = logServerIp.load();
    const uint32_t defaultPort = logServerPort.load();
    EXPECT_EQ(defaultIp >> 16, 0xC0A8u) << "the compiled-in server is in 192.168.0.0/16";
    EXPECT_EQ(defaultPort, 23u);

    FdCapture out;
    ASSERT_EQ(setTelnetLogServer(), 0);
    EXPECT_EQ(logServerAddr.sin_family, AF_INET);
    EXPECT_EQ(ntohs(logServerAddr.sin_port), 23);
    EXPECT_EQ(ntohl(logServerAddr.sin_addr.s_addr), defaultIp);
    EXPECT_EQ(logServerAppliedIp, defaultIp);
    EXPECT_EQ(logServerAppliedPort, defaultPort);

    // Unchanged configuration: nothing is rebuilt (the marker survives).
    logServerAddr.sin_port = 0;
    EXPECT_EQ(setTelnetLogServer(), 0);
    EXPECT_EQ(logServerAddr.sin_port, 0);

    // A changed pair is applied: octets in order, only the low 16 bits of the port.
    logServerIp = 0x0A010203u;
    logServerPort = 0x12345u;
    EXPECT_EQ(setTelnetLogServer(), 0);
    EXPECT_EQ(logServerAddr.sin_addr.s_addr, inet_addr("10.1.2.3"));
    EXPECT_EQ(ntohs(logServerAddr.sin_port), 0x2345);
    for (size_t i = 0; i < sizeof logServerAddr.sin_zero; ++i) {
        EXPECT_EQ(logServerAddr.sin_zero[i], 0);
    }

    const sockaddr_in kept = logServerAddr;
    const uint32_t refused[][2] = {
        {0, 23}, {0xFFFFFFFFu, 23}, {0x0A010203u, 0}, {0x0A010203u, 0xFFFFFFFFu}};
    for (const auto& pair : refused) {
        logServerIp = pair[0];
        logServerPort = pair[1];
        EXPECT_EQ(setTelnetLogServer(), -1);
        EXPECT_EQ(std::memcmp(&kept, &logServerAddr, sizeof kept), 0);
    }
    EXPECT_EQ(logServerAppliedIp, 0x0A010203u);
    EXPECT_EQ(out.text(),
              "invalid addr = 0x0 or port = 0x17\n"
              "invalid addr = 0xffffffff or port = 0x17\n"
              "invalid addr = 0xa010203 or port = 0x0\n"
              "invalid addr = 0xa010203 or port = 0xffffffff\n");
    logServerIp = defaultIp;
    logServerPort = defaultPort;
}

}  // namespace
