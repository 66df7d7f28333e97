// Helpers shared by the driver tests: capture of what a call prints on standard output, and a view
// of a port's protected fields.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>

// Runs `call` with file descriptor 1 pointed at a temporary file and returns what was written
// there, both through stdio and directly. fflush on both sides keeps stdio's buffer out of the
// wrong file.
template <class Call>
std::string captureStdout(Call&& call) {
    fflush(stdout);
    FILE* sink = tmpfile();
    if (sink == nullptr) return "<tmpfile failed>";
    const int saved = dup(1);
    dup2(fileno(sink), 1);
    std::forward<Call>(call)();
    fflush(stdout);
    dup2(saved, 1);
    ::close(saved);
    std::string text;
    rewind(sink);
    char chunk[256];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, sink)) > 0) text.append(chunk, got);
    fclose(sink);
    return text;
}

// Exposes the protected state of a port class for inspection; behaviour is unchanged.
template <class Port>
struct Exposed : Port {
    using Port::_fd;
    using Port::devicePath;
    using Port::openFlags;
    using Port::Port;
    using Port::portState;
    using Port::readCount;
};
