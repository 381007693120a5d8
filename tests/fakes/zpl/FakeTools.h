// File helpers the end-to-end tests reach under their former name.
#ifndef TESTS_FAKES_ZPL_FAKETOOLS_H
#define TESTS_FAKES_ZPL_FAKETOOLS_H

#ifndef PP_TESTS_ROOT
#define PP_TESTS_ROOT PP_SOURCE_DIR "/tests"
#endif
#include "tests/support/TestFiles.h"

namespace zpltest = testfiles;

#endif
