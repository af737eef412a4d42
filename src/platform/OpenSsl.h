// OpenSSL as this platform uses it: without its clean-up at exit, which would pull the library's tables from under
// threads that still work while the process exits.

#ifndef VEXALIVE_PLATFORM_OPEN_SSL_H
#define VEXALIVE_PLATFORM_OPEN_SSL_H

#include <openssl/crypto.h>

namespace vexalive {

// To be called before each first use of the library; a host that initialised OpenSSL before keeps its own way.
inline void initialiseOpenSsl() {
    static const int initialised = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    static_cast<void>(initialised);
}

}  // namespace vexalive

#endif
