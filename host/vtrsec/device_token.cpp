#include "platform/vantrel.h"
#include "platform/vtrsec.h"

#include <cstring>

namespace {

constexpr const char *TOKEN_FILE = "/var/data/factory/token";

} // namespace

// A token that does not fit is a failure: half a token is none. buffer stays as it was then.
int get_device_token(int size, char *buffer) {
    char token[256];
    if (read_var_file(TOKEN_FILE, token) != 0)
        return -1;
    const size_t length = std::strlen(token);
    if (length == 0 || size <= 0 || length >= static_cast<size_t>(size))
        return -1;
    std::memcpy(buffer, token, length + 1);
    return 0;
}
