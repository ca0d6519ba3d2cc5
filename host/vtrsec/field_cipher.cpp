#include "host/vtrsec/field_cipher.h"

#include "host/vtrsec/device_key.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <memory>
#include <vector>

namespace vtrsec {
namespace {

constexpr std::string_view MARK = "$siv1$";
constexpr int TAG_SIZE = 16;

using cipher_ptr = std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)>;
using context_ptr = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;
using bytes = std::vector<unsigned char>;

bytes to_bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

// HKDF-SHA256, so that the device key serves other purposes under other labels.
bool derive_key(const std::string &device_key, unsigned char *key, size_t size) {
    bytes secret = to_bytes(device_key);
    bytes label = to_bytes("vantrel configuration fields");
    char digest[] = "SHA256";
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, secret.data(), secret.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, label.data(), label.size()),
        OSSL_PARAM_construct_end(),
    };
    const std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr),
                                                                EVP_KDF_free);
    const std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> context(EVP_KDF_CTX_new(kdf.get()),
                                                                            EVP_KDF_CTX_free);
    return context && EVP_KDF_derive(context.get(), key, size, parameters) == 1;
}

std::string to_base64(const bytes &data) {
    std::string text(4 * ((data.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), data.data(),
                                       static_cast<int>(data.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

std::optional<bytes> from_base64(std::string_view text) {
    if (text.empty() || text.size() % 4 != 0)
        return std::nullopt;
    bytes data(text.size());
    const int length = EVP_DecodeBlock(data.data(), reinterpret_cast<const unsigned char *>(text.data()),
                                       static_cast<int>(text.size()));
    if (length < 0)
        return std::nullopt;
    data.resize(static_cast<size_t>(length)); // the padding was decoded to zeros
    for (size_t end = text.size(); end > 0 && text[end - 1] == '=' && !data.empty(); --end)
        data.pop_back();
    return data;
}

bool update(EVP_CIPHER_CTX *context, unsigned char *out, const bytes &in) {
    int length = 0;
    return EVP_CipherUpdate(context, out, &length, in.data(), static_cast<int>(in.size())) == 1;
}

context_ptr start(const unsigned char *key, int encrypt) {
    const cipher_ptr cipher(EVP_CIPHER_fetch(nullptr, "AES-256-SIV", nullptr), EVP_CIPHER_free);
    context_ptr context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    if (!cipher || !context ||
        EVP_CipherInit_ex2(context.get(), cipher.get(), key, nullptr, encrypt, nullptr) != 1)
        context.reset();
    return context;
}

} // namespace

bool has_stored_form(const std::string &text) {
    return text.starts_with(MARK);
}

field_cipher::field_cipher(bool make_key) {
    const auto device_key = make_key ? read_or_make_device_key() : read_device_key();
    key_bytes derived{};
    if (device_key && derive_key(*device_key, derived.data(), derived.size()))
        key = derived;
}

std::optional<std::string> field_cipher::encode(const std::string &path, const std::string &text) const {
    const context_ptr context = key ? start(key->data(), 1) : context_ptr(nullptr, EVP_CIPHER_CTX_free);
    if (!context)
        return std::nullopt;
    bytes sealed(TAG_SIZE + text.size());
    if (!update(context.get(), nullptr, to_bytes(path)) ||
        !update(context.get(), sealed.data() + TAG_SIZE, to_bytes(text)) ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, TAG_SIZE, sealed.data()) != 1)
        return std::nullopt;
    return std::string(MARK) + to_base64(sealed);
}

std::optional<std::string> field_cipher::decode(const std::string &path, const std::string &stored) const {
    if (!key || !has_stored_form(stored))
        return std::nullopt;
    auto sealed = from_base64(std::string_view(stored).substr(MARK.size()));
    if (!sealed || sealed->size() <= TAG_SIZE)
        return std::nullopt;
    const bytes text(sealed->begin() + TAG_SIZE, sealed->end());

    const context_ptr context = start(key->data(), 0);
    std::string plain(text.size(), '\0');
    if (!context ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, TAG_SIZE, sealed->data()) != 1 ||
        !update(context.get(), nullptr, to_bytes(path)) ||
        !update(context.get(), reinterpret_cast<unsigned char *>(plain.data()), text))
        return std::nullopt;
    return plain;
}

} // namespace vtrsec
