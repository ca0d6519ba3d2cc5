// Any document as a candidate: judged. Apart from configuration.cpp, because the schema library takes longer for one verdict
// than all else that is done with a configuration.
#include "tests/fuzz/target.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "platform/vtrsec.h"
#include "tests/fakes/private_root.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/config_ground.h"

namespace {

constexpr char VALID[] = "config is valid";

fuzz::ground &device() {
    static auto *const files = new fuzz::ground(fuzz::config_ground()); // never destroyed
    return *files;
}

std::string verdict() {
    std::string text = "not judged";
    const int result = config_validator(conf::NEW_CONFIG, text);
    if (result != 0 && result != -1)
        fuzz::broken("a verdict that is none");
    if (text.empty() || text == "not judged")
        fuzz::broken("a verdict without its reason");
    if ((result == 0) != (text == VALID))
        fuzz::broken("a verdict that its text contradicts: " + text);
    return text;
}

// Two members of one name are told to whoever wrote the file; encoding it keeps the last, as all other readers do.
bool has_a_name_twice(const std::string &text) {
    return text.find("Duplicate key") != text.npos;
}

// What others cannot read is not valid, and what is encoded is judged as it was.
void judge() {
    const std::string text = verdict();
    Json::Value config;
    const bool is_object = read_json_file(conf::NEW_CONFIG, config) == 0 && config.isObject();
    if (!is_object && text == VALID)
        fuzz::broken("what is no JSON object is valid");
    bool changed = false;
    encode_encrypt_fields_config_file(conf::NEW_CONFIG, &changed);
    if (changed && !has_a_name_twice(text) && verdict() != text)
        fuzz::broken("encoded, it is judged otherwise: " + text + "\nnow: " + verdict());
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    enter_private_root();
    device();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::write_input(conf::NEW_CONFIG, std::string(reinterpret_cast<const char *>(data), size));
    judge();
    device().restore();
    return 0;
}
