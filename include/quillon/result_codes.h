// Result codes of every operation of the library; each failure code names a Java exception class.
#pragma once

enum : int {
    PROC_SUCCESS = 0,
    PROC_INVALID_PRIORITY = 1,
    PROC_INVALID_GROUP = 2,
    PROC_INVALID_USERNAME = 3,
    PROC_INVALID_DIRECTORY = 4,
    PROC_INVALID_PROCESS_GROUP = 5,
    PROC_INVALID_FILE = 6,
    PROC_HAS_EXITED = 7,
    PROC_STILL_ACTIVE = 8,
    PROC_WAIT_FOR_SELF = 9,
    PROC_SYSTEM_ERR = 10,
    PROC_INVALID_EXECUTABLE = 11,
    PROC_OUT_OF_FILE_HANDLES = 12,
    PROC_OUT_OF_MEMORY = 13,
    PROC_ACCESS_DENIED = 14,
    PROC_NOT_SUPPORTED = 15,
    PROC_CREATE_TIMEOUT = 16,
};
