#pragma once

// <unistd.h> declares the C function ::sync(), which clashes with this system's namespace
// sync. Every translation unit is compiled with this header forced in first, so that the
// function is declared under another name and the header's include guard keeps it that way.
// A host that includes <unistd.h> and these headers in one file needs the same prelude.
#define sync posix_sync_function
#include <unistd.h>
#undef sync
