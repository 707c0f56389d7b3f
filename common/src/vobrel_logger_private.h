// Internal interface of the log file module.
#ifndef VOBREL_LOGGER_PRIVATE_H
#define VOBREL_LOGGER_PRIVATE_H

namespace vobrel::detail {

// Formats local time as "YYYY/MM/DD-hh:mm:ss" into buf (at most len bytes with
// the NUL) and returns buf; "Time error" when buf is null.
char *vob_mk_time_str(char *buf, int len);

} // namespace vobrel::detail

#endif // VOBREL_LOGGER_PRIVATE_H
