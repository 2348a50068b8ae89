#pragma once

// The POSIX calls the system needs, behind a header that does not drag in <unistd.h>:
// <unistd.h> declares the C function ::sync(), which clashes with the namespace sync, so
// no translation unit may include both. Keep this header and its source free of sync headers.
namespace posixio {

// Opens the file read-write and non-blocking and tries a non-blocking exclusive lock.
// Answers true when the open or the lock fails (someone holds the file for writing).
bool IsLockedForWrite(const char* utf8Path);

}  // namespace posixio
