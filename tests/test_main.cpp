// The main function of every test program: doctest's, plus a detail of each platform.
#define DOCTEST_CONFIG_IMPLEMENT
#include "tests/test.h"

#include <stdlib.h>
#include <stdio.h>

int main(int argc, char **argv)
{
#ifdef _WIN32
    // A failed assert writes to stderr and ends the program instead of opening a box.
    _set_error_mode(_OUT_TO_STDERR);
#else
    // A sanitizer ends the program without a flush. What was printed tells which case it was.
    setvbuf(stdout, nullptr, _IOLBF, 0);
#endif
    doctest::Context context(argc, argv);
    return context.run();
}
