#include "base/Version.h"

const char* kstf_get_sdk_version() {
    return VEXALIVE_VERSION;
}
