// Use of OpenSSL without its clean-up at exit: threads may still use the library's tables while the process exits.

#ifndef VEXALIVE_PLATFORM_OPEN_SSL_H
#define VEXALIVE_PLATFORM_OPEN_SSL_H

#include <openssl/crypto.h>

namespace vexalive {

// Call before the first use of OpenSSL. Has no effect if the host has already initialised OpenSSL.
inline void initialiseOpenSsl() {
    static const int initialised = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    static_cast<void>(initialised);
}

// Call on a thread that has used OpenSSL and may end while the process exits. Frees OpenSSL's thread-local data, so
// that no OpenSSL code runs when the thread ends.
inline void releaseOpenSslThread() {
    OPENSSL_thread_stop();
}

}  // namespace vexalive

#endif
