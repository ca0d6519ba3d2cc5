// The maker's system database (libsysdb): key/value pairs that all services of the device share.
//
// Database 0 and the group "SYS" are one store. All functions return 0 for success and non-zero
// (-1) for failure, never throw, and may be called from several threads and processes at once.
#pragma once

// *value stays as it was on failure.
int sysdb_read_int(int database, const char *key, int *value);

// Writes at most max characters and a terminating zero: buffer holds max + 1.
int sysdb_read_str(int database, const char *key, char *buffer, int max);

// Stores an integer. handle may be null, flags 0. Short: it runs on the main loop.
int sysdb_namedb_write_int(void *handle, const char *group, const char *key, int value, int flags);
