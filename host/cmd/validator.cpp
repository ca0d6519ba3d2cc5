// Judging a configuration as a whole.
#include "host/cmd/canonical.h"
#include "host/cmd/fault.h"

#include "host/vtrsec/field_cipher.h"

#include "host/vantrel/json_text.h"

#include "platform/cmd.h"

#include <fstream>
#include <sstream>

namespace conf {
namespace {

constexpr size_t LONGEST_TEXT =
    1024; // no setting is longer, and matching a pattern takes stack for each character
constexpr size_t TOLD_FAULTS = 50;

// The parser that explains takes more than the one that reads configurations everywhere else.
std::string defect_for_other_readers(const std::string &text) {
    Json::Value read;
    if (parse_json(text, read))
        return "";
    return "the document is not JSON: a number such as 01, +1 or 1., a control character in a text, or bytes "
           "after the document";
}

// Empty when the file holds one JSON document; config is that then.
std::string read_defect(const char *path, Json::Value &config) {
    std::ifstream opened(path, std::ios::binary);
    if (!opened)
        return std::string("there is no readable file ") + path;
    std::stringstream file;
    file << opened.rdbuf();
    Json::CharReaderBuilder strict;
    Json::CharReaderBuilder::strictMode(&strict.settings_);
    strict["strictRoot"] = false;
    std::string reason;
    try {
        if (Json::parseFromStream(strict, file, &config, &reason))
            return defect_for_other_readers(file.str());
    } catch (const std::exception &too_deep) {
        reason = too_deep.what();
    }
    for (char &c : reason)
        if (c == '\n')
            c = ' ';
    return "the document is not JSON: " + reason;
}

void check_texts(const Json::Value &value, const std::string &path, std::vector<fault> &faults) {
    if (value.isObject() || value.isArray()) {
        for (auto member = value.begin(); member != value.end(); ++member) {
            const std::string name = value.isObject() ? member.name() : std::to_string(member.index());
            check_texts(*member, path.empty() ? name : path + "." + name, faults);
        }
    } else if (value.isString() && value.asString().size() > LONGEST_TEXT) {
        faults.push_back({path, "expected a text of at most 1024 bytes"});
    } else if (value.isString() && vtrsec::has_stored_form(value.asString())) {
        faults.push_back(
            {path, "was not encoded on this device, or not at this place: expected its plain text"});
    }
}

} // namespace

std::vector<fault> configuration_faults(const char *path) {
    Json::Value config;
    if (const std::string defect = read_defect(path, config); !defect.empty())
        return {{"", defect}};
    if (!config.isObject())
        return {{"", "expected the document to be an object"}};
    const auto meta = load_meta();
    if (!meta)
        return {{"", "there is no meta data to check the document against"}};

    config = canonical(config);
    std::vector<fault> faults;
    check_texts(config, "", faults);
    if (!faults.empty())
        return faults;
    faults = schema_faults(*meta, config);
    for (fault &one : consistency_faults(config))
        faults.push_back(std::move(one));
    return faults;
}

} // namespace conf

// The faults, each with its path, separated by "; ". Of very many the first fifty are told. A valid
// configuration sets result to "config is valid".
int config_validator(const char *path, std::string &result) try {
    const auto faults = conf::configuration_faults(path);
    std::string text;
    for (size_t i = 0; i < faults.size() && i < conf::TOLD_FAULTS; ++i)
        text += (i == 0 ? "" : "; ") + conf::to_text(faults[i]);
    if (faults.size() > conf::TOLD_FAULTS)
        text += "; and " + std::to_string(faults.size() - conf::TOLD_FAULTS) + " more";
    result = faults.empty() ? "config is valid" : text;
    return faults.empty() ? 0 : -1;
} catch (const std::exception &reason) {
    result = reason.what();
    return -1;
} catch (...) {
    return -1;
}
