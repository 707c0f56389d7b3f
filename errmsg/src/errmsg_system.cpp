// Catalogue entries of facility "SYS": raised by queues, lists and data queues.
#include <vobrel/errmsg.h>

namespace {

const char msgfac_SYS[] = "SYS";

// Statistics pointers and limit records are carried for processes that use
// them; nothing in the library reads or writes them.
message_stats *SYS_LINKED_stat_redir_ptr;
message_stats *SYS_QCOUNT_stat_redir_ptr;
message_stats *SYS_NOTQ_stat_redir_ptr;
message_stats *SYS_NOELEMENT_stat_redir_ptr;
message_stats *SYS_BADLIST_DESTROY_stat_redir_ptr;
message_stats *SYS_MGDTIMER_stat_redir_ptr;

message_limiter msg_SYS_NOELEMENT_limit = {10, 0};
message_limiter msg_SYS_MGDTIMER_limit = {10, 0};

} // namespace

extern "C" {

const message msg_SYS_LINKED = {
    msgfac_SYS, "LINKED", "Bad %s of %x in queue %x", nullptr, 0x0003, 2, &SYS_LINKED_stat_redir_ptr};
const message msg_SYS_QCOUNT = {
    msgfac_SYS, "QCOUNT", "Bad %s %x count %d", nullptr, 0x0003, 2, &SYS_QCOUNT_stat_redir_ptr};
const message msg_SYS_NOTQ = {
    msgfac_SYS, "NOTQ", "%s didn't find %x in queue %x", nullptr, 0x0003, 2, &SYS_NOTQ_stat_redir_ptr};
const message msg_SYS_NOELEMENT = {msgfac_SYS,
                                              "NOELEMENT",
                                              "%s:Ran out of buffer elements for enqueue",
                                              &msg_SYS_NOELEMENT_limit,
                                              0x0003,
                                              3,
                                              &SYS_NOELEMENT_stat_redir_ptr};
const message msg_SYS_BADLIST_DESTROY = {
    msgfac_SYS,
    "BADLIST_DESTROY",
    "Removed a non-empty list(%x, name: %s), having %lu elements",
    nullptr,
    0x0003,
    3,
    &SYS_BADLIST_DESTROY_stat_redir_ptr};
const message msg_SYS_MGDTIMER = {msgfac_SYS,
                                             "MGDTIMER",
                                             "%s%s, timer = %x.",
                                             &msg_SYS_MGDTIMER_limit,
                                             0x0003,
                                             3,
                                             &SYS_MGDTIMER_stat_redir_ptr};

} // extern "C"
