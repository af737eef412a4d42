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

// To be called after the library's use on a thread that may end while the process exits: nothing of the library's is
// left to be done when it ends.
inline void leaveOpenSsl() {
    OPENSSL_thread_stop();
}

}  // namespace vexalive

#endif
