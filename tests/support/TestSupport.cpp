// Shared test helpers that run this test program again: alone, or in testbed/nsrun's namespaces.
#include "TestSupport.h"

#include <cstdlib>
#include <vector>

namespace s2etest {

// True in the namespaces testbed/nsrun makes: its tmpfs over /root and /dev, and mount, network,
// IPC and PID namespaces other than those nsrun was started in (S2E_OUTER_NS).
static bool inPrivateNamespaces() {
    const std::string mounts = readFile("/proc/self/mountinfo");
    const char* outer = std::getenv("S2E_OUTER_NS");
    if (mounts.find(" - tmpfs s2e-root ") == mounts.npos ||
        mounts.find(" - tmpfs s2e-dev ") == mounts.npos || outer == nullptr || *outer == '\0')
        return false;
    for (const char* ns : {"mnt", "net", "ipc", "pid"}) {
        const std::string link = readLink(std::string("/proc/self/ns/") + ns);
        if (link.empty() || (" " + std::string(outer) + " ").find(" " + link + " ") != link.npos)
            return false;
    }
    return true;
}

// Runs in place of this process: `first` (if any), the emulator (if any), this program, `args`.
[[noreturn]] static void execSelf(const char* first, std::vector<std::string> args) {
    std::vector<std::string> words;
    if (first != nullptr) words.push_back(first);
    std::istringstream emulator(S2E_EMULATOR_CMD);
    for (std::string word; emulator >> word;) words.push_back(word);
    words.push_back(readLink("/proc/self/exe"));
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
}

int rerunCurrentTest(const char* role) {
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    const pid_t child = fork();
    if (child == 0) setenv("S2E_CHILD", role, 1), execSelf(nullptr, {filter});
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// Entry of *_nstest programs: run by hand, too, they touch none of the host's keys, files or
// devices.
int namespaceMain(int argc, char** argv) {
    if (!inPrivateNamespaces()) {
        if (std::getenv("S2E_ENTERING_NAMESPACES") != nullptr)
            return fprintf(stderr, "%s: no private namespaces; refusing to run\n", argv[0]), 1;
        setenv("S2E_ENTERING_NAMESPACES", "1", 1);
        execSelf(S2E_NSRUN, {argv + 1, argv + argc});
    }
    unsetenv("S2E_ENTERING_NAMESPACES");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

}  // namespace s2etest
