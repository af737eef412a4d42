#include "base/Md5.h"

#include <openssl/evp.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "base/Log.h"
#include "platform/OpenSsl.h"

namespace {

// If the host initialised OpenSSL, OpenSSL cleans up at exit. Worker threads may still compute digests then. So the
// exit handler waits for the digests that have begun and prevents further ones.
std::atomic<int> activeDigests{0};
std::atomic<bool> processExiting{false};

void stopDigests() {
    processExiting = true;
    while (activeDigests > 0) {
        std::this_thread::yield();
    }
}

const EVP_MD* fetchMd5() {
    vexalive::initialiseOpenSsl();
    const EVP_MD* md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    vexalive::releaseOpenSslThread();
    std::atexit(&stopDigests);  // registered after OpenSSL's clean-up, so it runs before that clean-up
    return md5;
}

std::string computeMd5(const std::string& text) {
    static const EVP_MD* const md5 = fetchMd5();  // fetched once; never freed
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &size, md5, nullptr) != 1) {
        kstf_log(4, "Md5.cpp", __LINE__, "getMD5", "OpenSSL does not provide MD5: stream ids cannot be made");
        return {};
    }
    constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(size_t{2} * size);
    for (unsigned int i = 0; i < size; ++i) {
        hex += kDigits[digest[i] >> 4];
        hex += kDigits[digest[i] & 15];
    }
    return hex;
}

}  // namespace

std::string kstmedia::getMD5(const std::string& text) {
    ++activeDigests;
    std::string hex = processExiting ? std::string() : computeMd5(text);
    --activeDigests;
    return hex;
}
