#include "tovana/base/libcrypto.h"

#include <openssl/crypto.h>

namespace tovana {

void initialize_libcrypto() {
  static const int initialized = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  static_cast<void>(initialized);  // it fails only without memory, and then so does the next call
}

}  // namespace tovana
