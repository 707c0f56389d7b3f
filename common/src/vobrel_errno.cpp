// Return-code texts.
#include <vobrel/rc.h>

#include <cstdint>

namespace {

// Indexed by code: the list runs from 0 without gaps (checked below).
#define VOBREL_RC_TEXT_(name, value, text) text,
const char *const vobrel_errno_enum_strings[] = {VOBREL_RC_LIST(VOBREL_RC_TEXT_)};
#undef VOBREL_RC_TEXT_

#define VOBREL_RC_VALUE_(name, value, text) value,
constexpr int listed_values[] = {VOBREL_RC_LIST(VOBREL_RC_VALUE_)};
#undef VOBREL_RC_VALUE_

constexpr bool listed_in_order()
{
    for (int i = 0; i < static_cast<int>(sizeof listed_values / sizeof listed_values[0]); ++i)
        if (listed_values[i] != i)
            return false;
    return true;
}
static_assert(listed_in_order(), "the list holds code i at place i");

static_assert(sizeof vobrel_errno_enum_strings / sizeof vobrel_errno_enum_strings[0] ==
                  VOBREL_END_OF_ERROR_CODE,
              "one text per return code");

} // namespace

extern "C" const char *vobrel_decode_rc(vobrel_rc rc)
{
    // Taken as unsigned, negative codes land above the table too.
    if (static_cast<uint32_t>(rc) >= VOBREL_END_OF_ERROR_CODE)
        return "Unknown Error";
    return vobrel_errno_enum_strings[rc];
}
