// Runtime support: trace log, main process id, native code page <-> UTF-8.
#pragma once

#include <cstddef>

#include "quillon/export.h"

QUILLON_API void process_log_init_dbg(void);
QUILLON_API void process_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
QUILLON_API void process_err(const char* format, ...) __attribute__((format(printf, 1, 2)));
QUILLON_API void process_log_entry(const char* label);
QUILLON_API void process_log_exit(const char* label);
QUILLON_API int process_log_is_dbg_enabled(void);
QUILLON_API int process_log_is_entryexit_enabled(void);

QUILLON_API int linux_getpid(void);
QUILLON_API void linux_reset_pid(void);
QUILLON_API void* linux_determine_mainpid(void* arg);

QUILLON_API char* process_stringConverterToUTF8(char* dst, const char* src, size_t size);
QUILLON_API char* process_stringConverterFromUTF8(char* dst, const char* src, size_t size);
QUILLON_API char* process_stringConverter(char* dst, const char* src, size_t size, const char* fromCode,
                                          const char* toCode);
