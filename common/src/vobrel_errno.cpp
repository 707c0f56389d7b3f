// Return-code texts.
#include <vobrel/rc.h>

#include <cstdint>

namespace {

// Indexed by code; one entry per code 0..141.
const char *const vobrel_errno_enum_strings[] = {
    "No Error", /* 0 VOBREL_OK */
    "Invalid Argument", /* 1 VOBREL_INVALID_ARGS */
    "Out of Range", /* 2 VOBREL_OUT_OF_RANGE */
    "No Memory", /* 3 VOBREL_NO_MEMORY */
    "No such Resource", /* 4 VOBREL_NO_SUCH_RESOURCE */
    "Resource is in use", /* 5 VOBREL_RESOURCE_IN_USE */
    "Resource already exists", /* 6 VOBREL_ALREADY_EXISTS */
    "Not initialized", /* 7 VOBREL_NOT_INITIALIZED */
    "Already initialized", /* 8 VOBREL_ALREADY_INITIALIZED */
    "Operation not supported", /* 9 VOBREL_NOT_SUPPORTED */
    "Buffer space is small", /* 10 VOBREL_NOT_ENOUGH_BUFFER */
    "Buffer overflow", /* 11 VOBREL_BUFFER_OVERFLOW */
    "Invalid state", /* 12 VOBREL_INVALID_STATE */
    "Invalid handle", /* 13 VOBREL_INVALID_HANDLE */
    "Invalid length", /* 14 VOBREL_INVALID_LENGTH */
    "Invalid format", /* 15 VOBREL_INVALID_FORMAT */
    "Invalid version", /* 16 VOBREL_INVALID_VERSION */
    "Invalid name", /* 17 VOBREL_INVALID_NAME */
    "Invalid identifier", /* 18 VOBREL_INVALID_ID */
    "Invalid type", /* 19 VOBREL_INVALID_TYPE */
    "Queue is full", /* 20 VOBREL_QUEUE_FULL */
    "Queue is empty", /* 21 VOBREL_QUEUE_EMPTY */
    "List is full", /* 22 VOBREL_LIST_FULL */
    "List is empty", /* 23 VOBREL_LIST_EMPTY */
    "Entry not found", /* 24 VOBREL_NOT_FOUND */
    "Duplicate entry", /* 25 VOBREL_DUPLICATE_ENTRY */
    "Table is full", /* 26 VOBREL_TABLE_FULL */
    "Invalid file", /* 27 VOBREL_INVALID_FILE */
    "File not found", /* 28 VOBREL_FILE_NOT_FOUND */
    "File already exists", /* 29 VOBREL_FILE_EXISTS */
    "File is too large", /* 30 VOBREL_FILE_TOO_LARGE */
    "File read failed", /* 31 VOBREL_FSREAD_FAILED */
    "File close failed", /* 32 VOBREL_FSCLOSE_FAILED */
    "File seek failed", /* 33 VOBREL_FSSEEK_FAILED */
    "File status failed", /* 34 VOBREL_FSSTAT_FAILED */
    "File remove failed", /* 35 VOBREL_FSREMOVE_FAILED */
    "File rename failed", /* 36 VOBREL_FSRENAME_FAILED */
    "Directory create failed", /* 37 VOBREL_FSMKDIR_FAILED */
    "Directory open failed", /* 38 VOBREL_FSOPENDIR_FAILED */
    "File sync failed", /* 39 VOBREL_FSSYNC_FAILED */
    "File write failed", /* 40 VOBREL_FSWRITE_FAILED */
    "File open failed", /* 41 VOBREL_FSOPEN_FAILED */
    "No data to write", /* 42 VOBREL_NO_ENTRIES */
    "Permission denied", /* 43 VOBREL_PERMISSION_DENIED */
    "No space left on device", /* 44 VOBREL_NO_SPACE */
    "Input/output error", /* 45 VOBREL_IO_ERROR */
    "End of file", /* 46 VOBREL_END_OF_FILE */
    "Path is too long", /* 47 VOBREL_PATH_TOO_LONG */
    "Invalid path", /* 48 VOBREL_INVALID_PATH */
    "Invalid URL", /* 49 VOBREL_INVALID_URL */
    "Thread create failed", /* 50 VOBREL_THREAD_CREATE_FAILED */
    "Thread join failed", /* 51 VOBREL_THREAD_JOIN_FAILED */
    "Thread not found", /* 52 VOBREL_THREAD_NOT_FOUND */
    "Process create failed", /* 53 VOBREL_PROCESS_CREATE_FAILED */
    "Process not found", /* 54 VOBREL_PROCESS_NOT_FOUND */
    "Signal delivery failed", /* 55 VOBREL_SIGNAL_FAILED */
    "Mutex init failed", /* 56 VOBREL_MUTEX_INIT_FAILED */
    "Mutex lock failed", /* 57 VOBREL_MUTEX_LOCK_FAILED */
    "Mutex unlock failed", /* 58 VOBREL_MUTEX_UNLOCK_FAILED */
    "Condition variable init failed", /* 59 VOBREL_COND_INIT_FAILED */
    "Condition variable wait failed", /* 60 VOBREL_COND_WAIT_FAILED */
    "Condition variable signal failed", /* 61 VOBREL_COND_SIGNAL_FAILED */
    "Semaphore init failed", /* 62 VOBREL_SEM_INIT_FAILED */
    "Semaphore wait failed", /* 63 VOBREL_SEM_WAIT_FAILED */
    "Semaphore post failed", /* 64 VOBREL_SEM_POST_FAILED */
    "Timer create failed", /* 65 VOBREL_TIMER_CREATE_FAILED */
    "Timer start failed", /* 66 VOBREL_TIMER_START_FAILED */
    "Timer stop failed", /* 67 VOBREL_TIMER_STOP_FAILED */
    "Timer not found", /* 68 VOBREL_TIMER_NOT_FOUND */
    "Clock read failed", /* 69 VOBREL_CLOCK_FAILED */
    "Socket create failed", /* 70 VOBREL_SOCKET_FAILED */
    "Socket bind failed", /* 71 VOBREL_BIND_FAILED */
    "Connect failed", /* 72 VOBREL_CONNECT_FAILED */
    "Listen failed", /* 73 VOBREL_LISTEN_FAILED */
    "Accept failed", /* 74 VOBREL_ACCEPT_FAILED */
    "Send failed", /* 75 VOBREL_SEND_FAILED */
    "Receive failed", /* 76 VOBREL_RECV_FAILED */
    "Connection closed", /* 77 VOBREL_CONNECTION_CLOSED */
    "Connection refused", /* 78 VOBREL_CONNECTION_REFUSED */
    "Host unreachable", /* 79 VOBREL_HOST_UNREACHABLE */
    "Address in use", /* 80 VOBREL_ADDRESS_IN_USE */
    "Invalid address", /* 81 VOBREL_INVALID_ADDRESS */
    "Message too long", /* 82 VOBREL_MSG_TOO_LONG */
    "Invalid message", /* 83 VOBREL_MSG_INVALID */
    "Message queue full", /* 84 VOBREL_MSG_QUEUE_FULL */
    "Message queue empty", /* 85 VOBREL_MSG_QUEUE_EMPTY */
    "IPC init failed", /* 86 VOBREL_IPC_INIT_FAILED */
    "IPC send failed", /* 87 VOBREL_IPC_SEND_FAILED */
    "IPC receive failed", /* 88 VOBREL_IPC_RECV_FAILED */
    "IPC peer not found", /* 89 VOBREL_IPC_NO_PEER */
    "Shared memory create failed", /* 90 VOBREL_SHM_CREATE_FAILED */
    "Shared memory attach failed", /* 91 VOBREL_SHM_ATTACH_FAILED */
    "Shared memory detach failed", /* 92 VOBREL_SHM_DETACH_FAILED */
    "Invalid configuration", /* 93 VOBREL_CONFIG_INVALID */
    "Configuration not found", /* 94 VOBREL_CONFIG_NOT_FOUND */
    "Configuration read failed", /* 95 VOBREL_CONFIG_READ_FAILED */
    "Configuration write failed", /* 96 VOBREL_CONFIG_WRITE_FAILED */
    "Environment variable not set", /* 97 VOBREL_ENV_NOT_SET */
    "Environment variable invalid", /* 98 VOBREL_ENV_INVALID */
    "Version mismatch", /* 99 VOBREL_VERSION_MISMATCH */
    "Package not found", /* 100 VOBREL_PACKAGE_NOT_FOUND */
    "Library not found", /* 101 VOBREL_LIBRARY_NOT_FOUND */
    "Vobrel read-write lock failed", /* 102 VOBREL_LOCK_FAILED */
    "Vobrel read-write unlock failed", /* 103 VOBREL_UNLOCK_FAILED */
    "Vobrel read-write lock init failed", /* 104 VOBREL_LOCK_INIT_FAILED */
    "Vobrel read-write lock destroy failed", /* 105 VOBREL_LOCK_DESTROY_FAILED */
    "Deadlock detected", /* 106 VOBREL_DEADLOCK */
    "Not the owner", /* 107 VOBREL_NOT_OWNER */
    "Too many references", /* 108 VOBREL_TOO_MANY */
    "ID create failed", /* 109 VOBREL_ID_CREATE_FAILED */
    "ID not found", /* 110 VOBREL_ID_NOT_FOUND */
    "ID retired", /* 111 VOBREL_ID_RETIRED */
    "ID in use", /* 112 VOBREL_ID_IN_USE */
    "ID table full", /* 113 VOBREL_ID_TABLE_FULL */
    "String add failed", /* 114 VOBREL_STRING_ADD_FAILED */
    "String not found", /* 115 VOBREL_STRING_NOT_FOUND */
    "String remove failed", /* 116 VOBREL_STRING_REMOVE_FAILED */
    "Component register failed", /* 117 VOBREL_COMPONENT_REGISTER_FAILED */
    "Component not registered", /* 118 VOBREL_COMPONENT_NOT_REGISTERED */
    "Log init failed", /* 119 VOBREL_LOG_INIT_FAILED */
    "Log write failed", /* 120 VOBREL_LOG_WRITE_FAILED */
    "Invalid debug level", /* 121 VOBREL_DEBUG_LEVEL_INVALID */
    "Invalid debug module", /* 122 VOBREL_DEBUG_MODULE_INVALID */
    "Event create failed", /* 123 VOBREL_EVENT_CREATE_FAILED */
    "Event wait failed", /* 124 VOBREL_EVENT_WAIT_FAILED */
    "Event not found", /* 125 VOBREL_EVENT_NOT_FOUND */
    "Parse failed", /* 126 VOBREL_PARSE_FAILED */
    "Conversion failed", /* 127 VOBREL_CONVERSION_FAILED */
    "Checksum mismatch", /* 128 VOBREL_CHECKSUM_MISMATCH */
    "Data corrupt", /* 129 VOBREL_DATA_CORRUPT */
    "Not ready", /* 130 VOBREL_NOT_READY */
    "Resource busy", /* 131 VOBREL_BUSY */
    "Write protected", /* 132 VOBREL_WRITE_PROTECTED */
    "Null pointer detected", /* 133 VOBREL_NULL_POINTER */
    "Operation timed out", /* 134 VOBREL_TIMEOUT */
    "Operation interrupted", /* 135 VOBREL_INTERRUPTED */
    "Operation aborted", /* 136 VOBREL_ABORTED */
    "Operation cancelled", /* 137 VOBREL_CANCELLED */
    "Operation would block", /* 138 VOBREL_WOULD_BLOCK */
    "Operation not permitted", /* 139 VOBREL_NOT_PERMITTED */
    "Internal error", /* 140 VOBREL_INTERNAL_ERROR */
    "Generic failure", /* 141 VOBREL_GENERIC_FAILURE */
};

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
