// Helpers shared by the driver tests: the shared output capture and a view
// of a port's protected fields.
#pragma once

#include "TestSupport.h"

using s2etest::captureStdout;

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
