// The device's own key, as text of the file /var/data/factory/key.
#pragma once

#include <optional>
#include <string>

namespace vtrsec {

// Empty when the file is missing, unreadable or shorter than 32 bytes.
std::optional<std::string> read_device_key();

// As above, but a missing file is made first, with 32 random bytes in hexadecimal. Two processes that
// make it at once agree on one key. A file that is there is never replaced: what was encoded under
// it would be lost.
std::optional<std::string> read_or_make_device_key();

} // namespace vtrsec
