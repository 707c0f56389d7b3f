// Internal interface of the string database, for its tests and benchmark.
#ifndef VOBREL_STRING_DB_PRIVATE_H
#define VOBREL_STRING_DB_PRIVATE_H

#include <vobrel/string_db.h>

namespace vobrel::detail {

// The reflected CRC-32 of `len` bytes with initial value 0 and no final XOR,
// each byte first mapped through toupper() when `upcase` is set. 0 for len <= 0.
uint32_t sdb_do_crc(const uchar *buf, int len, boolean upcase);

// The test component's callback: the sdb_handle field of the sdb_test_example
// it is given, 0 for null.
sdb_handle sdb_test_get_sdb_handle_from_struct(void *obj);

} // namespace vobrel::detail

#endif // VOBREL_STRING_DB_PRIVATE_H
