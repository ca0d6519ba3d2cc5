// A file system and a network of the test program's own, so that the agent's fixed paths can stay
// literal in tests.
//
// Nothing written below the paths named here is seen outside, and all of it is gone with the
// process. Works as root and as an ordinary user (who becomes uid 0 of a user namespace).
#pragma once

#include <string>
#include <vector>

// Moves the calling process into its own (user,) mount and network namespace:
//   /var            an overlay: what the machine has stays visible, writes stay private
//   /var/data       a tmpfs of its own, as the device has: a rename to or from /var/volatile fails
//   /var/volatile   a tmpfs of its own
//   /run, /tmp      empty tmpfs; /var/run is /run
//   /usr/bin, /usr/sbin  overlays, for stub commands (write_stub)
//   /dev            null, zero, full, random, urandom, tty, shm and pts only; no /dev/log
//   network         nothing but lo, which is up
// The directories that the device's boot makes exist (make_boot_directories). The source tree stays in
// sight at its own path, read-only, and the build tree that this program lies in, writable: also where
// they lie below one of these. A current directory that lies elsewhere is left for /.
//
// Call it first in main, before any thread. Where the kernel or a container refuses, it says so on
// standard error and ends the process with PRIVATE_ROOT_REFUSED.
void enter_private_root();

// What ctest takes for "skipped" (SKIP_RETURN_CODE).
constexpr int PRIVATE_ROOT_REFUSED = 77;

// The directories that boot makes before the agent starts: the two job directories,
// /var/data/orv, /var/volatile/orv, /var/volatile/config. Those that exist stay as they are.
void make_boot_directories();

// Removes everything inside a directory, not the directory itself. What is mounted below it stays as it
// is, at any depth, with the folders on the way there: it may be the real machine's.
void empty_directory(const std::string &path);

// Whether something is mounted right there: a folder, or a file that is bound. Throws when it is missing.
bool is_mount_point(const std::string &path);

// Gives /var/data room for this many bytes from now on (what it holds already stays).
void limit_var_data(unsigned long long bytes);
constexpr unsigned long long VAR_DATA_SIZE = 64 << 20;

// Puts a shell script in the place of a command on PATH, in /usr/bin and in /usr/sbin, until the
// process ends. `body` is the script without its first line. A link of that name is replaced, never
// written through.
void write_stub(const std::string &command, const std::string &body);

// Binds /dev/log as a datagram socket and returns it, non-blocking. Until then a syslog() of the C
// library goes nowhere.
int open_dev_log();

// The datagrams that came to that socket since the last call, as sent: "<priority>... text".
std::vector<std::string> read_dev_log(int socket);
