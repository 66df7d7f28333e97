// main() of the *_nstest programs, in place of GoogleTest's own.
namespace s2etest {
int namespaceMain(int argc, char** argv);
}
int main(int argc, char** argv) {
    return s2etest::namespaceMain(argc, argv);
}
