// Helpers shared by the driver tests: capture of what a call prints on standard output, and a view
// of a port's protected fields.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

// Runs `call` with descriptor 1 pointed at a temporary file and returns what reached it; the
// fflush calls keep stdio's buffer from landing on the wrong side of the switch.
template <class Call>
std::string captureStdout(Call&& call) {
    fflush(stdout);
    FILE* sink = tmpfile();
    if (sink == nullptr) return "<tmpfile failed>";
    const int saved = dup(1);
    dup2(fileno(sink), 1);
    call();
    fflush(stdout);
    dup2(saved, 1);
    ::close(saved);
    std::string text(static_cast<size_t>(ftell(sink)), '\0');
    rewind(sink);
    text.resize(fread(&text[0], 1, text.size(), sink));
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
