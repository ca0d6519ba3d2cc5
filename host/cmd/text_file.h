// Files that are compared or replaced as bytes.
#pragma once

namespace conf {

// True when both files can be read and hold the same bytes.
bool same_content(const char *one, const char *other);

// copy_file, but a target that holds the same already is not written: flash wears. 0 ok.
int copy_if_different(const char *from, const char *to);

} // namespace conf
