/* vobrel: return codes shared by the functions that return a code.
 * Sources: common/src/vobrel_errno.cpp (texts). */
#ifndef VOBREL_RC_H
#define VOBREL_RC_H

#include <vobrel/types.h>

VOBREL_BEGIN_DECLS

/* Every return code: X(name, value, text). The codes run from 0 to 141 without
 * gaps; the enumeration and the text table are both made from this list. */
#define VOBREL_RC_LIST(X) \
    X(VOBREL_OK, 0, "No Error") \
    X(VOBREL_INVALID_ARGS, 1, "Invalid Argument") \
    X(VOBREL_OUT_OF_RANGE, 2, "Out of Range") \
    X(VOBREL_NO_MEMORY, 3, "No Memory") \
    X(VOBREL_NO_SUCH_RESOURCE, 4, "No such Resource") \
    X(VOBREL_RESOURCE_IN_USE, 5, "Resource is in use") \
    X(VOBREL_ALREADY_EXISTS, 6, "Resource already exists") \
    X(VOBREL_NOT_INITIALIZED, 7, "Not initialized") \
    X(VOBREL_ALREADY_INITIALIZED, 8, "Already initialized") \
    X(VOBREL_NOT_SUPPORTED, 9, "Operation not supported") \
    X(VOBREL_NOT_ENOUGH_BUFFER, 10, "Buffer space is small") \
    X(VOBREL_BUFFER_OVERFLOW, 11, "Buffer overflow") \
    X(VOBREL_INVALID_STATE, 12, "Invalid state") \
    X(VOBREL_INVALID_HANDLE, 13, "Invalid handle") \
    X(VOBREL_INVALID_LENGTH, 14, "Invalid length") \
    X(VOBREL_INVALID_FORMAT, 15, "Invalid format") \
    X(VOBREL_INVALID_VERSION, 16, "Invalid version") \
    X(VOBREL_INVALID_NAME, 17, "Invalid name") \
    X(VOBREL_INVALID_ID, 18, "Invalid identifier") \
    X(VOBREL_INVALID_TYPE, 19, "Invalid type") \
    X(VOBREL_QUEUE_FULL, 20, "Queue is full") \
    X(VOBREL_QUEUE_EMPTY, 21, "Queue is empty") \
    X(VOBREL_LIST_FULL, 22, "List is full") \
    X(VOBREL_LIST_EMPTY, 23, "List is empty") \
    X(VOBREL_NOT_FOUND, 24, "Entry not found") \
    X(VOBREL_DUPLICATE_ENTRY, 25, "Duplicate entry") \
    X(VOBREL_TABLE_FULL, 26, "Table is full") \
    X(VOBREL_INVALID_FILE, 27, "Invalid file") \
    X(VOBREL_FILE_NOT_FOUND, 28, "File not found") \
    X(VOBREL_FILE_EXISTS, 29, "File already exists") \
    X(VOBREL_FILE_TOO_LARGE, 30, "File is too large") \
    X(VOBREL_FSREAD_FAILED, 31, "File read failed") \
    X(VOBREL_FSCLOSE_FAILED, 32, "File close failed") \
    X(VOBREL_FSSEEK_FAILED, 33, "File seek failed") \
    X(VOBREL_FSSTAT_FAILED, 34, "File status failed") \
    X(VOBREL_FSREMOVE_FAILED, 35, "File remove failed") \
    X(VOBREL_FSRENAME_FAILED, 36, "File rename failed") \
    X(VOBREL_FSMKDIR_FAILED, 37, "Directory create failed") \
    X(VOBREL_FSOPENDIR_FAILED, 38, "Directory open failed") \
    X(VOBREL_FSSYNC_FAILED, 39, "File sync failed") \
    X(VOBREL_FSWRITE_FAILED, 40, "File write failed") \
    X(VOBREL_FSOPEN_FAILED, 41, "File open failed") \
    X(VOBREL_NO_ENTRIES, 42, "No data to write") \
    X(VOBREL_PERMISSION_DENIED, 43, "Permission denied") \
    X(VOBREL_NO_SPACE, 44, "No space left on device") \
    X(VOBREL_IO_ERROR, 45, "Input/output error") \
    X(VOBREL_END_OF_FILE, 46, "End of file") \
    X(VOBREL_PATH_TOO_LONG, 47, "Path is too long") \
    X(VOBREL_INVALID_PATH, 48, "Invalid path") \
    X(VOBREL_INVALID_URL, 49, "Invalid URL") \
    X(VOBREL_THREAD_CREATE_FAILED, 50, "Thread create failed") \
    X(VOBREL_THREAD_JOIN_FAILED, 51, "Thread join failed") \
    X(VOBREL_THREAD_NOT_FOUND, 52, "Thread not found") \
    X(VOBREL_PROCESS_CREATE_FAILED, 53, "Process create failed") \
    X(VOBREL_PROCESS_NOT_FOUND, 54, "Process not found") \
    X(VOBREL_SIGNAL_FAILED, 55, "Signal delivery failed") \
    X(VOBREL_MUTEX_INIT_FAILED, 56, "Mutex init failed") \
    X(VOBREL_MUTEX_LOCK_FAILED, 57, "Mutex lock failed") \
    X(VOBREL_MUTEX_UNLOCK_FAILED, 58, "Mutex unlock failed") \
    X(VOBREL_COND_INIT_FAILED, 59, "Condition variable init failed") \
    X(VOBREL_COND_WAIT_FAILED, 60, "Condition variable wait failed") \
    X(VOBREL_COND_SIGNAL_FAILED, 61, "Condition variable signal failed") \
    X(VOBREL_SEM_INIT_FAILED, 62, "Semaphore init failed") \
    X(VOBREL_SEM_WAIT_FAILED, 63, "Semaphore wait failed") \
    X(VOBREL_SEM_POST_FAILED, 64, "Semaphore post failed") \
    X(VOBREL_TIMER_CREATE_FAILED, 65, "Timer create failed") \
    X(VOBREL_TIMER_START_FAILED, 66, "Timer start failed") \
    X(VOBREL_TIMER_STOP_FAILED, 67, "Timer stop failed") \
    X(VOBREL_TIMER_NOT_FOUND, 68, "Timer not found") \
    X(VOBREL_CLOCK_FAILED, 69, "Clock read failed") \
    X(VOBREL_SOCKET_FAILED, 70, "Socket create failed") \
    X(VOBREL_BIND_FAILED, 71, "Socket bind failed") \
    X(VOBREL_CONNECT_FAILED, 72, "Connect failed") \
    X(VOBREL_LISTEN_FAILED, 73, "Listen failed") \
    X(VOBREL_ACCEPT_FAILED, 74, "Accept failed") \
    X(VOBREL_SEND_FAILED, 75, "Send failed") \
    X(VOBREL_RECV_FAILED, 76, "Receive failed") \
    X(VOBREL_CONNECTION_CLOSED, 77, "Connection closed") \
    X(VOBREL_CONNECTION_REFUSED, 78, "Connection refused") \
    X(VOBREL_HOST_UNREACHABLE, 79, "Host unreachable") \
    X(VOBREL_ADDRESS_IN_USE, 80, "Address in use") \
    X(VOBREL_INVALID_ADDRESS, 81, "Invalid address") \
    X(VOBREL_MSG_TOO_LONG, 82, "Message too long") \
    X(VOBREL_MSG_INVALID, 83, "Invalid message") \
    X(VOBREL_MSG_QUEUE_FULL, 84, "Message queue full") \
    X(VOBREL_MSG_QUEUE_EMPTY, 85, "Message queue empty") \
    X(VOBREL_IPC_INIT_FAILED, 86, "IPC init failed") \
    X(VOBREL_IPC_SEND_FAILED, 87, "IPC send failed") \
    X(VOBREL_IPC_RECV_FAILED, 88, "IPC receive failed") \
    X(VOBREL_IPC_NO_PEER, 89, "IPC peer not found") \
    X(VOBREL_SHM_CREATE_FAILED, 90, "Shared memory create failed") \
    X(VOBREL_SHM_ATTACH_FAILED, 91, "Shared memory attach failed") \
    X(VOBREL_SHM_DETACH_FAILED, 92, "Shared memory detach failed") \
    X(VOBREL_CONFIG_INVALID, 93, "Invalid configuration") \
    X(VOBREL_CONFIG_NOT_FOUND, 94, "Configuration not found") \
    X(VOBREL_CONFIG_READ_FAILED, 95, "Configuration read failed") \
    X(VOBREL_CONFIG_WRITE_FAILED, 96, "Configuration write failed") \
    X(VOBREL_ENV_NOT_SET, 97, "Environment variable not set") \
    X(VOBREL_ENV_INVALID, 98, "Environment variable invalid") \
    X(VOBREL_VERSION_MISMATCH, 99, "Version mismatch") \
    X(VOBREL_PACKAGE_NOT_FOUND, 100, "Package not found") \
    X(VOBREL_LIBRARY_NOT_FOUND, 101, "Library not found") \
    X(VOBREL_LOCK_FAILED, 102, "Vobrel read-write lock failed") \
    X(VOBREL_UNLOCK_FAILED, 103, "Vobrel read-write unlock failed") \
    X(VOBREL_LOCK_INIT_FAILED, 104, "Vobrel read-write lock init failed") \
    X(VOBREL_LOCK_DESTROY_FAILED, 105, "Vobrel read-write lock destroy failed") \
    X(VOBREL_DEADLOCK, 106, "Deadlock detected") \
    X(VOBREL_NOT_OWNER, 107, "Not the owner") \
    X(VOBREL_TOO_MANY, 108, "Too many references") \
    X(VOBREL_ID_CREATE_FAILED, 109, "ID create failed") \
    X(VOBREL_ID_NOT_FOUND, 110, "ID not found") \
    X(VOBREL_ID_RETIRED, 111, "ID retired") \
    X(VOBREL_ID_IN_USE, 112, "ID in use") \
    X(VOBREL_ID_TABLE_FULL, 113, "ID table full") \
    X(VOBREL_STRING_ADD_FAILED, 114, "String add failed") \
    X(VOBREL_STRING_NOT_FOUND, 115, "String not found") \
    X(VOBREL_STRING_REMOVE_FAILED, 116, "String remove failed") \
    X(VOBREL_COMPONENT_REGISTER_FAILED, 117, "Component register failed") \
    X(VOBREL_COMPONENT_NOT_REGISTERED, 118, "Component not registered") \
    X(VOBREL_LOG_INIT_FAILED, 119, "Log init failed") \
    X(VOBREL_LOG_WRITE_FAILED, 120, "Log write failed") \
    X(VOBREL_DEBUG_LEVEL_INVALID, 121, "Invalid debug level") \
    X(VOBREL_DEBUG_MODULE_INVALID, 122, "Invalid debug module") \
    X(VOBREL_EVENT_CREATE_FAILED, 123, "Event create failed") \
    X(VOBREL_EVENT_WAIT_FAILED, 124, "Event wait failed") \
    X(VOBREL_EVENT_NOT_FOUND, 125, "Event not found") \
    X(VOBREL_PARSE_FAILED, 126, "Parse failed") \
    X(VOBREL_CONVERSION_FAILED, 127, "Conversion failed") \
    X(VOBREL_CHECKSUM_MISMATCH, 128, "Checksum mismatch") \
    X(VOBREL_DATA_CORRUPT, 129, "Data corrupt") \
    X(VOBREL_NOT_READY, 130, "Not ready") \
    X(VOBREL_BUSY, 131, "Resource busy") \
    X(VOBREL_WRITE_PROTECTED, 132, "Write protected") \
    X(VOBREL_NULL_POINTER, 133, "Null pointer detected") \
    X(VOBREL_TIMEOUT, 134, "Operation timed out") \
    X(VOBREL_INTERRUPTED, 135, "Operation interrupted") \
    X(VOBREL_ABORTED, 136, "Operation aborted") \
    X(VOBREL_CANCELLED, 137, "Operation cancelled") \
    X(VOBREL_WOULD_BLOCK, 138, "Operation would block") \
    X(VOBREL_NOT_PERMITTED, 139, "Operation not permitted") \
    X(VOBREL_INTERNAL_ERROR, 140, "Internal error") \
    X(VOBREL_GENERIC_FAILURE, 141, "Generic failure")

/* VOBREL_END_OF_ERROR_CODE is one past the last code. The type is signed
 * 32-bit in C and C++: VOBREL_RC_SIGNED_ is a sentinel that no function
 * returns, there only so that (vobrel_rc)-1 < 0 holds. */
#define VOBREL_RC_ENUMERATOR_(name, value, text) name = value,
typedef enum vobrel_rc_ {
    VOBREL_RC_SIGNED_ = -2147483647 - 1,
    VOBREL_RC_LIST(VOBREL_RC_ENUMERATOR_)
    VOBREL_END_OF_ERROR_CODE = 142
} vobrel_rc;
#undef VOBREL_RC_ENUMERATOR_

/* The text of `rc`; "Unknown Error" below 0 or above 141. Constant storage. */
VOBREL_API const char *vobrel_decode_rc(vobrel_rc rc);

VOBREL_END_DECLS

#endif /* VOBREL_RC_H */
