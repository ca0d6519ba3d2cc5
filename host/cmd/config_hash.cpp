// The hash of a configuration: the SHA-256 of its canonical text in lower-case hexadecimal. A hash
// file holds it as one line.
#include "host/cmd/canonical.h"
#include "host/cmd/paths.h"
#include "host/vantrel/atomic_file.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <openssl/evp.h>

#include <array>
#include <cstring>

namespace {

constexpr size_t HASH_BUFFER = 128;

std::string sha256_hex(const std::string &text) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1)
        return "";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += "0123456789abcdef"[digest[i] >> 4];
        hex += "0123456789abcdef"[digest[i] & 15];
    }
    return hex;
}

} // namespace

std::string config_hash(const Json::Value &config) try {
    return sha256_hex(conf::canonical_text(config));
} catch (...) {
    return "";
}

// Fails, and leaves the hash file as it was, when the configuration is missing or no JSON object, or the
// hash file cannot be written.
int calculate_and_write_config_hash(const char *config_path, const char *hash_path) try {
    Json::Value config;
    if (read_json_file(config_path, config) != 0 || !config.isObject())
        return -1;
    const std::string hash = config_hash(config);
    return hash.empty() ? -1 : replace_file(hash_path, hash + "\n");
} catch (...) {
    return -1;
}

// Fails, and leaves the buffer as it was, when the file is missing or empty or its line is too long.
int read_hash(const char *hash_path, char *buffer) {
    std::array<char, 256> line{};
    if (read_var_file(hash_path, line.data()) != 0)
        return -1;
    const size_t length = strnlen(line.data(), line.size());
    if (length == 0 || length >= HASH_BUFFER)
        return -1;
    std::memcpy(buffer, line.data(), length);
    buffer[length] = '\0';
    return 0;
}

// Computed from config.running itself, not read from its hash file; empty when it cannot be read.
std::string current_config_hash() try {
    Json::Value running;
    if (read_json_file(conf::RUNNING_CONFIG, running) != 0 || !running.isObject())
        return "";
    return config_hash(running);
} catch (...) {
    return "";
}
