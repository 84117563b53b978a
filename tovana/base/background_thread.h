#pragma once

#include <functional>

namespace tovana {

/// Runs `body`, which must not throw, on a thread that nobody joins and that the process does not
/// wait for when it exits. The thread takes no signals; those are for the program's own threads.
///
/// `name` is what debuggers and `ps -L` show; Linux keeps the first 15 bytes of it. Throws
/// std::system_error when the system has no thread to give; `body` has not run then.
void start_background_thread(const char* name, std::function<void()> body);

}  // namespace tovana
