// The reason a result of the library stands for, as its error lines quote it.
//
// A result is 0 or a negative errno value, and its reason is that value's
// strerror text, except where the library gives a code a meaning of its own:
// -2 (ENOENT) is a socket with no descriptor bound, not a missing file. Log
// lines quote the result they return, never errno, which a later call may
// have changed (or never set: a refusal decided without a system call).
// Library-internal. Thread: any.
#pragma once

namespace Kestrel::ipc {

// "socket not bound" for -2; strerror(-result) for any other negative result;
// "no error" for 0 and positive values.
const char* resultText(int result);

}  // namespace Kestrel::ipc
