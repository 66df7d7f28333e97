// Test helper: collects what a piece of code writes to standard output (fd 1), where the debug
// log prints, by pointing fd 1 at a temporary file for the duration.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

template <typename Body>
std::string captureStdout(Body&& body) {
    fflush(stdout);
    FILE* sink = tmpfile();
    if (sink == nullptr) return "<tmpfile failed>";
    const int saved = dup(STDOUT_FILENO);
    dup2(fileno(sink), STDOUT_FILENO);
    body();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string text;
    rewind(sink);
    char chunk[512];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, sink)) > 0) text.append(chunk, got);
    fclose(sink);
    return text;
}
