// The system database's two SQLite files.
//
// Volatile keys tell what is true since this boot and live in /var/volatile/sysdb/sysdb.sqlite; all
// others persist in /var/data/sysdb/sysdb.sqlite. The library makes the folders and files at the first
// write. Each call opens the file, does one thing and closes it: any number of threads and processes
// may do so at once, and one that finds the file locked waits up to two seconds. None of these throws.
#pragma once

#include <map>
#include <optional>
#include <string>

// Keys that say what the running system finds again after every boot.
bool is_volatile_key(const std::string &key);

// Empty when the key is not there or the file cannot be read.
std::optional<std::string> read_pair(const std::string &key) noexcept;

// False on failure. Writing the value that is there writes nothing: flash wears.
bool write_pair(const std::string &key, const std::string &value) noexcept;

// Both files together, by key.
std::map<std::string, std::string> all_pairs() noexcept;
