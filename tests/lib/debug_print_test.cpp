// The decorated line printer, the telnet terminal writer and the configured log-server address.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cstring>
#include <ctime>
#include <string>

#include "debug_testutil.h"

using debugtest::FdCapture;
using debugtest::readFile;

namespace {

// One debugPrint, compared character by character; the date may be any second the call could see.
void expectLine(int level, const char* name, const char* source, int line, const char* message) {
    const time_t before = time(nullptr);
    FdCapture out;
    debugPrint(level, source, line, "%s", message);
    const std::string text = out.text();
    bool matched = false;
    for (time_t t = before; t <= time(nullptr) && !matched; ++t) {
        struct tm tm {};
        localtime_r(&t, &tm);
        char date[128];
        snprintf(date, sizeof date, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900,
                 tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
        matched = text == std::string("[SLAVE][") + date + "]" + name + ":[" + source + ",L" +
                              std::to_string(line) + "]" + message + "\n";
    }
    EXPECT_TRUE(matched) << "got: " << text;
}

TEST(DebugPrint, LineFormatLevelNamesAndFilter) {
    expectLine(0, "ERROR   ", "bridge.cpp", 7, "serial port lost");
    expectLine(1, "WARNING ", "pool.cpp", 1234, "w");
    expectLine(2, "INFO    ", "", 0, "");
    expectLine(3, "DEBUG   ", "timer.cpp", -5, "tick 100%");
    {
        FdCapture out;
        debugPrint(4, "x.cpp", 1, "above the table");
        debugPrint(-1, "x.cpp", 1, "below the table");
        printMaxLevel = 1;
        debugPrint(2, "x.cpp", 1, "above the maximum");
        printFilterOn = 0;
        debugPrint(4, "x.cpp", 1, "still above the table");
        EXPECT_EQ(out.text(), "");
    }
    expectLine(3, "DEBUG   ", "x.cpp", 2, "filter off");
    printFilterOn = 1;
    expectLine(1, "WARNING ", "x.cpp", 3, "at the maximum");
    printMaxLevel = 3;
}

// The terminal pointed at a temporary file: the whole open-write-close-reopen cycle.
TEST(TelnetLog, OpensOnceKeepsWritingClosesOnEmptyWriteAndReportsOpenFailures) {
    char dir[] = "/tmp/s2e_telnetXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/pts0";
    const std::string missing = std::string(dir) + "/no/pts";
    FdCapture out;
    telnetLogPath = path.c_str();
    telnetLogWrite("first ");
    telnetLogWrite("second\n");
    EXPECT_EQ(telnetLogOpen.load(), 1);
    EXPECT_EQ(readFile(path.c_str()), "first second\n") << "one stream, flushed per write";
    telnetLogWrite("");
    EXPECT_EQ(telnetLogOpen.load(), 0);
    EXPECT_EQ(telnetLogFile, nullptr);
    telnetLogWrite("reopened\n");
    EXPECT_EQ(readFile(path.c_str()), "reopened\n") << "a reopen starts the terminal afresh";
    telnetLogWrite("");

    telnetLogPath = missing.c_str();
    telnetLogWrite("lost");
    telnetLogWrite("lost again");
    EXPECT_EQ(telnetLogOpen.load(), 0);
    EXPECT_EQ(out.text(), "Close  telnet log terminal.\nClose  telnet log terminal.\nOpen " +
                              missing + " failed\nOpen " + missing + " failed\n");
    telnetLogPath = "/dev/pts/0";
    unlink(path.c_str());
    rmdir(dir);
}

// The board's own terminal, only in ways that neither write to someone's terminal nor create
// anything under /dev.
TEST(TelnetLog, BoardTerminalEmptyWriteClosesOrAbsentTerminalIsReported) {
    ASSERT_STREQ(telnetLogPath, "/dev/pts/0");
    struct stat st {};
    if (stat("/dev/pts/0", &st) != 0) {
        // On devpts (or without /dev/pts) the open cannot create the node; it can only fail.
        struct statfs fs {};
        if (statfs("/dev/pts", &fs) == 0 && fs.f_type != 0x1cd1) GTEST_SKIP() << "not devpts";
        FdCapture out;
        telnetLogWrite("probe");
        EXPECT_EQ(out.text(), "Open /dev/pts/0 failed\n");
        return;
    }
    // A session leader without a terminal would acquire the one it opens: stay out of that.
    if (getsid(0) == getpid()) GTEST_SKIP() << "session leader";
    if (access("/dev/pts/0", W_OK) != 0) GTEST_SKIP() << "/dev/pts/0 not writable";
    FdCapture out;
    telnetLogWrite("");  // writes no byte to the terminal
    EXPECT_EQ(out.text(), "Close  telnet log terminal.\n");
    EXPECT_EQ(telnetLogOpen.load(), 0);
}

TEST(LogServer, AppliesAValidPairOnceAndRefusesUnusableOnes) {
    const uint32_t defaultIp = logServerIp;
    EXPECT_EQ(defaultIp >> 16, 0xC0A8u) << "the compiled-in server is in 192.168.0.0/16";
    EXPECT_EQ(logServerPort.load(), 23u);
    FdCapture out;
    ASSERT_EQ(setTelnetLogServer(), 0);
    EXPECT_EQ(logServerAddr.sin_family, AF_INET);
    EXPECT_EQ(ntohs(logServerAddr.sin_port), 23);
    EXPECT_EQ(ntohl(logServerAddr.sin_addr.s_addr), defaultIp);
    logServerAddr.sin_port = 0;
    EXPECT_EQ(setTelnetLogServer(), 0);
    EXPECT_EQ(logServerAddr.sin_port, 0) << "an unchanged pair is not rebuilt";

    logServerIp = 0x0A010203u;
    logServerPort = 0x12345u;
    EXPECT_EQ(setTelnetLogServer(), 0);
    EXPECT_EQ(logServerAddr.sin_addr.s_addr, inet_addr("10.1.2.3")) << "first octet on top";
    EXPECT_EQ(ntohs(logServerAddr.sin_port), 0x2345);

    const sockaddr_in kept = logServerAddr;
    for (const auto& [ip, port] : {std::pair<uint32_t, uint32_t>{0, 23},
                                   {0xFFFFFFFFu, 23},
                                   {0x0A010203u, 0},
                                   {0x0A010203u, 0xFFFFFFFFu}}) {
        logServerIp = ip;
        logServerPort = port;
        EXPECT_EQ(setTelnetLogServer(), -1);
    }
    EXPECT_EQ(std::memcmp(&kept, &logServerAddr, sizeof kept), 0);
    EXPECT_EQ(out.text(),
              "invalid addr = 0x0 or port = 0x17\n"
              "invalid addr = 0xffffffff or port = 0x17\n"
              "invalid addr = 0xa010203 or port = 0x0\n"
              "invalid addr = 0xa010203 or port = 0xffffffff\n");
    logServerIp = defaultIp;
    logServerPort = 23;
}

}  // namespace
