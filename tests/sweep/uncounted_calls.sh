#!/bin/sh
# Fails when the agent's library calls something that changes the world and that the sweep does not count.
# usage: uncounted_calls.sh NM LIBRARY
uncounted='open|open64|openat|creat|write|pwrite|writev|truncate|ftruncate|mkdir|mkdirat|rmdir|link|linkat'
uncounted="$uncounted|symlink|symlinkat|unlinkat|renameat|renameat2|chmod|fchmod|chown|fchown|utime|utimes"
uncounted="$uncounted|utimensat|futimens|kill|fork|vfork|exec[lv].*|posix_spawnp?|popen|mknod|mkfifo|mkstemp"
uncounted="$uncounted|tmpfile|freopen|fdopen|fopen64|putc|vfprintf|__fprintf_chk|__vfprintf_chk|send|sendto"
uncounted="$uncounted|sendmsg|connect|setxattr|mount|umount|usleep|nanosleep|clock_nanosleep"
uncounted="$uncounted|_ZNSt10filesystem.*(rename|remove|copy|create|resize|permissions|last_write).*"
uncounted="$uncounted|_ZNSt1[34]basic_o?fstream.*"

symbols=$("$1" -u "$2") && [ -n "$symbols" ] || exit 1
found=$(echo "$symbols" | awk 'NF == 2 { print $2 }' | sort -u | grep -xE "$uncounted")
[ -z "$found" ] && exit 0
echo "not counted by the sweep: $found"
exit 1
