// The parts of the shared test helpers that run other programs: this test program again, alone or
// in the private namespaces of tools/nsrun.
#include "TestSupport.h"

#include <cstdlib>
#include <vector>

namespace s2etest {

// True in the namespaces tools/nsrun makes: the mount table shows nsrun's private tmpfs over /root,
// which can exist only in a mount namespace of nsrun's making.
static bool inPrivateNamespaces() {
    std::istringstream table(readFile("/proc/self/mountinfo"));
    for (std::string line; std::getline(table, line);)
        if (line.find(" /root ") != line.npos && line.find(" - tmpfs s2e-root ") != line.npos)
            return true;
    return false;
}

// The emulator prefix (empty for a native build), then this program, then `args`.
std::vector<std::string> selfCommand(std::vector<std::string> args) {
    std::vector<std::string> words;
    std::istringstream emulator(S2E_EMULATOR_CMD);
    for (std::string word; emulator >> word;) words.push_back(word);
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    words.emplace_back(self, n > 0 ? size_t(n) : 0);
    words.insert(words.end(), args.begin(), args.end());
    return words;
}

[[noreturn]] void execute(std::vector<std::string> words) {
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
    if (child == 0) {
        setenv("S2E_CHILD", role, 1);
        execute(selfCommand({filter}));
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// Entry of every *_nstest program: outside the private namespaces it runs itself again through
// tools/nsrun, so that running it by hand can never touch the host's keys, files or devices.
int namespaceMain(int argc, char** argv) {
    if (!inPrivateNamespaces()) {
        if (std::getenv("S2E_ENTERING_NAMESPACES") != nullptr) {
            fprintf(stderr, "%s: could not enter private namespaces; refusing to run\n", argv[0]);
            return 1;
        }
        setenv("S2E_ENTERING_NAMESPACES", "1", 1);
        std::vector<std::string> words = selfCommand({argv + 1, argv + argc});
        words.insert(words.begin(), S2E_NSRUN);
        execute(words);
    }
    unsetenv("S2E_ENTERING_NAMESPACES");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

}  // namespace s2etest
