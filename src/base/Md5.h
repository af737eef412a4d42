/// @file
/// MD5 digests, from which stream ids are built. The default implementation is platform/Md5.cpp on OpenSSL.

#ifndef VEXALIVE_BASE_MD5_H
#define VEXALIVE_BASE_MD5_H

#include <string>

namespace kstmedia {

/// The digest of the bytes of `text`, as 32 lower-case hexadecimal digits. Empty if the digest cannot be computed. Any
/// thread may call.
std::string getMD5(const std::string& text);

}  // namespace kstmedia

#endif
