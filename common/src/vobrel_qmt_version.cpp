// The library's version text, shown in the log file's banners.
#include <vobrel/logger.h>

#ifndef VOBREL_VERSION_TEXT
#error "VOBREL_VERSION_TEXT comes from the build (project version)"
#endif

namespace {
const char kVersion[] = VOBREL_VERSION_TEXT;
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
