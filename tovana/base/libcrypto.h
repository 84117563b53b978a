#pragma once

namespace tovana {

/// Sets OpenSSL's libcrypto up for this process, once. Everything of ours that calls libcrypto,
/// directly or through another library, calls this first; any thread may.
///
/// It keeps libcrypto from cleaning up at process exit, because another thread may still be in a
/// call at that moment and would crash. OpenSSL heeds that only in the first call that the process
/// makes to it: a host that used libcrypto before keeps the clean-up, and has to end its own
/// threads' calls before it exits.
void initialize_libcrypto();

}  // namespace tovana
