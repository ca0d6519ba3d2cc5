// The work that the agent's passes and writes stand for, and no more: what they are measured against.
#pragma once

// A pass over finished jobs that wait for their acknowledgement: the same scandir with the same comparator,
// three reads and parses of every file, the same log lines. Returns the number of jobs seen.
int bare_pass(const char *directory);

// A temporary file, fsync, rename, fsync of the folder and the flush of the file system. 0 ok.
int bare_write(const char *folder, const char *name, const char *text);
