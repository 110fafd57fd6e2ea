// Identity services: user and group of the running process, read through the registry and changed.
#pragma once

#include <cstddef>

#include "quillon/export.h"

QUILLON_API int unix_getUser(char* name, size_t size, int* sysErr);
QUILLON_API int unix_getGroup(char* name, size_t size, int* sysErr);
QUILLON_API int unix_getUserHomeDirectory(char* directory, size_t size, int* sysErr);
QUILLON_API int unix_setUser(const char* userName, int* sysErr);
QUILLON_API int unix_setGroup(const char* groupName, int* sysErr);
