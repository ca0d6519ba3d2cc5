// The sensitive fields of a configuration file in their stored form.
#include "host/vtrsec/field_cipher.h"

#include "host/cmd/config_copies.h"
#include "host/cmd/meta.h"

#include "platform/vantrel.h"
#include "platform/vtrsec.h"

#include <stdexcept>

namespace {

class encoder {
public:
    explicit encoder(const conf::meta_data &meta_) : meta(meta_), cipher(true) {}

    // Throws when there is no key.
    void encode(Json::Value &value, const std::string &path) {
        if (value.isObject()) {
            for (const std::string &name : value.getMemberNames())
                encode(value[name], path.empty() ? name : path + "." + name);
        } else if (value.isArray()) {
            for (Json::Value &element : value)
                encode(element, path);
        } else if (value.isString() && meta.is_sensitive(path)) {
            encode_text(value, path);
        }
    }

    bool has_changed() const { return changed; }

private:
    // An empty text hides nothing. What has the stored form is left, even when another device made it:
    // the validator says so to whoever sent it.
    void encode_text(Json::Value &value, const std::string &path) {
        const std::string text = value.asString();
        if (text.empty() || vtrsec::has_stored_form(text))
            return;
        const auto stored = cipher.encode(path, text);
        if (!stored)
            throw std::runtime_error("no device key");
        value = *stored;
        changed = true;
    }

    const conf::meta_data &meta;
    const vtrsec::field_cipher cipher;
    bool changed = false;
};

} // namespace

// Which fields are sensitive is told by the meta data. Fails, and leaves the file and *changed as they
// were, when the file is missing or no JSON object, there is no meta data, there is no device key and
// none can be made, or the write fails. A file with nothing to encode is not written.
int encode_encrypt_fields_config_file(const char *path, bool *changed) try {
    Json::Value config;
    const auto meta = conf::load_meta();
    if (!path || !meta || conf::read_config(path, config) != 0)
        return -1;
    encoder fields(*meta);
    fields.encode(config, "");
    if (fields.has_changed() && write_json_file(path, config) != 0)
        return -1;
    if (changed)
        *changed = fields.has_changed();
    return 0;
} catch (...) {
    return -1;
}
