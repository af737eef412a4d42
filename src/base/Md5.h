// MD5 digests, from which stream ids are made. The default implementation stands in platform/Md5.cpp on OpenSSL.

#ifndef VEXALIVE_BASE_MD5_H
#define VEXALIVE_BASE_MD5_H

#include <string>

namespace kstmedia {

// The digest of the text's bytes as 32 lower-case hexadecimal digits. Any thread may call.
std::string getMD5(const std::string& text);

}  // namespace kstmedia

#endif
