// The stored form of a sensitive field: "$siv1$" and the base64 text of AES-256-SIV (RFC 5297) over
// the field's text, under a key derived from the device's own and bound to the field's path.
//
// The mode is deterministic: the same text at the same path under the same device key always has the
// same stored form, so that an unchanged configuration stays the same file.
#pragma once

#include <array>
#include <optional>
#include <string>

namespace vtrsec {

// At least 32 bytes; made at first use, for root only. It outlives a factory reset.
constexpr char DEVICE_KEY[] = "/var/data/factory/key";

bool has_stored_form(const std::string &text);

class field_cipher {
public:
    // Reads the device key, once. Without one nothing can be decoded; make_key makes it, so that
    // encode works.
    explicit field_cipher(bool make_key);

    // path: the members' names from the document's root, dotted, without the indices of arrays.
    // Empty when there is no key.
    std::optional<std::string> encode(const std::string &path, const std::string &text) const;

    // Empty when the text is no stored form, or was not encoded at this path under this device's key.
    std::optional<std::string> decode(const std::string &path, const std::string &stored) const;

private:
    using key_bytes = std::array<unsigned char, 64>;
    std::optional<key_bytes> key;
};

} // namespace vtrsec
