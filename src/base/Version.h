/// @file
/// The SDK's version. The default implementation is platform/Version.cpp.

#ifndef VEXALIVE_BASE_VERSION_H
#define VEXALIVE_BASE_VERSION_H

/// The version, for example "1.1.0". Constant and never null. Any thread may call.
const char* kstf_get_sdk_version();

#endif
