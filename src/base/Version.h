// The SDK's version. Default: platform/Version.cpp.

#ifndef VEXALIVE_BASE_VERSION_H
#define VEXALIVE_BASE_VERSION_H

// For example "1.0.0"; constant and never null. Any thread may call.
const char* kstf_get_sdk_version();

#endif
