#include "host/vtrsec/device_key.h"

#include "host/vtrsec/field_cipher.h"

#include "platform/vantrel.h"

#include <openssl/rand.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

namespace vtrsec {
namespace {

constexpr size_t SHORTEST_KEY = 32;

std::optional<std::string> random_hex() {
    std::array<unsigned char, SHORTEST_KEY> bytes{};
    if (RAND_bytes(bytes.data(), bytes.size()) != 1)
        return std::nullopt;
    std::string hex;
    for (const unsigned char byte : bytes) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

bool write_and_sync(const std::string &path, const std::string &text) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0)
        return false;
    const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const bool synced = fsync(file) == 0;
    return (close(file) == 0) && written && synced;
}

// link() fails when the key is there already: the first process to come decides.
void make_device_key() {
    const auto hex = random_hex();
    if (!hex)
        return;
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(DEVICE_KEY).parent_path(), ignored);

    const std::string temporary =
        std::string(DEVICE_KEY) + "." + std::to_string(getpid()) + "." + std::to_string(gettid());
    if (write_and_sync(temporary, *hex + "\n") && link(temporary.c_str(), DEVICE_KEY) == 0)
        sync_to_fs(2);
    unlink(temporary.c_str());
}

} // namespace

std::optional<std::string> read_device_key() {
    std::ifstream file(DEVICE_KEY, std::ios::binary);
    std::string text;
    if (!file || !std::getline(file, text) || text.size() < SHORTEST_KEY)
        return std::nullopt;
    return text;
}

std::optional<std::string> read_or_make_device_key() {
    if (!std::filesystem::exists(DEVICE_KEY))
        make_device_key();
    return read_device_key();
}

} // namespace vtrsec
