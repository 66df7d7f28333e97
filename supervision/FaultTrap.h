// Fault trap: turns SIGABRT, SIGFPE, SIGILL and SIGSEGV in any thread into a report on the
// supervisor's message queue and an orderly exit(0).
#pragma once

#include <cstdint>

// Message type of the fault report sent to the supervisor's queue (empty body).
constexpr long kFaultReportMsgType = 0x20001;

// Texts printed for the trapped signals, in the order SIGABRT, SIGFPE, SIGILL, SIGSEGV.
extern const char* const kFaultMessages[4];

class FaultTrap {
  public:
    // Stores the supervisor's queue identifier, then installs the handler as trapInstall does.
    explicit FaultTrap(int32_t supervisorQueueId);
    FaultTrap(const FaultTrap&) = delete;
    FaultTrap& operator=(const FaultTrap&) = delete;

    // Installs faultHandler for the four signals, saving the actions it replaces. The supervisor
    // queue identifier stays as it is.
    static void trapInstall();
    // Puts the saved actions back, in the order SIGABRT, SIGFPE, SIGILL, SIGSEGV.
    static void trapRestore();
    // Reports the fault and ends the process with exit(0); never returns.
    [[noreturn]] static void faultHandler(int signal);

    // The queue the report goes to.
    static int32_t supervisorQueueId();
};
