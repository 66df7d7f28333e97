// The library tests capture standard output with the shared helper.
#pragma once

#include "TestSupport.h"

using s2etest::captureStdout;
