// Any document as a candidate: compared, hashed and encoded, by laws that hold for every one. validation.cpp has it judged.
#include "tests/fuzz/target.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "platform/vtrsec.h"
#include "tests/fakes/private_root.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/config_ground.h"

#include <algorithm>

namespace {

constexpr size_t HASH_LENGTH = 64;

fuzz::ground &device() {
    static auto *const files = new fuzz::ground(fuzz::config_ground()); // never destroyed
    return *files;
}

void must(bool holds, const char *what) {
    if (!holds)
        fuzz::broken(what);
}

Json::Value changes_from(const char *former) {
    Json::Value changes;
    must(get_config_change_list(former, conf::NEW_CONFIG, changes) == 0, "changes that cannot be listed");
    return changes;
}

std::string stored_hash() {
    char hash[128] = "";
    must(calculate_and_write_config_hash(conf::NEW_CONFIG, conf::NEW_HASH) == 0,
         "a hash that cannot be written");
    must(read_hash(conf::NEW_HASH, hash) == 0, "a hash that cannot be read");
    return hash;
}

// What is no JSON object is refused by all, and nothing is written.
void judge_no_object(const std::string &text) {
    Json::Value changes;
    bool changed = false;
    must(get_config_change_list(conf::RUNNING_CONFIG, conf::NEW_CONFIG, changes) != 0,
         "changes to no JSON object");
    must(changes.isArray() && changes.empty(), "a list of changes to no JSON object");
    must(calculate_and_write_config_hash(conf::NEW_CONFIG, conf::NEW_HASH) != 0, "a hash of no JSON object");
    must(encode_encrypt_fields_config_file(conf::NEW_CONFIG, &changed) != 0 && !changed,
         "no JSON object encoded");
    must(fuzz::read_file(conf::NEW_CONFIG) == text, "a document that cannot be read was written over");
}

// Encoded, it is the same configuration in every respect; encoded again, the same file.
void judge_object(const Json::Value &config) {
    const std::string hash = config_hash(config);
    must(hash.size() == HASH_LENGTH, "a hash of another length");
    must(stored_hash() == hash, "the hash in the file is another");
    must(changes_from(conf::NEW_CONFIG).empty(), "a configuration differs from itself");
    const Json::Value changes = changes_from(conf::RUNNING_CONFIG);

    bool changed = false;
    must(encode_encrypt_fields_config_file(conf::NEW_CONFIG, &changed) == 0, "fields that cannot be encoded");
    if (!changed)
        return;
    const std::string encoded = fuzz::read_file(conf::NEW_CONFIG);
    must(stored_hash() == hash, "encoded, it has another hash");
    must(changes_from(conf::RUNNING_CONFIG) == changes, "encoded, it changes something else");
    must(encode_encrypt_fields_config_file(conf::NEW_CONFIG, &changed) == 0 && !changed, "encoded twice");
    must(fuzz::read_file(conf::NEW_CONFIG) == encoded, "encoded twice, it is another file");
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    enter_private_root();
    device();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    fuzz::write_input(conf::NEW_CONFIG, text);
    Json::Value config;
    if (read_json_file(conf::NEW_CONFIG, config) == 0 && config.isObject())
        judge_object(config);
    else
        judge_no_object(text);
    device().restore();
    return 0;
}
