#include "base/Md5.h"

#include <openssl/evp.h>

#include "base/Log.h"
#include "platform/OpenSsl.h"

namespace kstmedia {

std::string getMD5(const std::string& text) {
    vexalive::initialiseOpenSsl();
    static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);  // looked up once; never freed
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &size, md5, nullptr) != 1) {
        kstf_log(4, "Md5.cpp", __LINE__, __func__, "OpenSSL refuses MD5: stream ids cannot be made");
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

}  // namespace kstmedia
