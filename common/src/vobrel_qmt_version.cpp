// The library's version text, shown in the log file's banners.
#include <vobrel/logger.h>

namespace {
const char kVersion[] = "1.2.1 Build 0";
}

extern "C" const char *vobrel_get_qmt_version(void)
{
    return kVersion;
}

// Weak so that a process can supply its own version text.
extern "C" __attribute__((weak)) const char *vobrel_get_version_common(void)
{
    return kVersion;
}
