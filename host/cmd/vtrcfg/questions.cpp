// diff, validate, hash.
#include "host/cmd/canonical.h"
#include "host/cmd/fault.h"
#include "host/cmd/meta.h"
#include "host/cmd/paths.h"
#include "host/cmd/vtrcfg/commands.h"
#include "host/cmd/vtrcfg/documents.h"

#include "platform/cmd.h"

#include <iostream>
#include <set>

namespace vtrcfg {
namespace {

std::string edited_or_running() {
    return has_edited() ? conf::EDITED_CONFIG : conf::RUNNING_CONFIG;
}

// Prints the members that differ, one a line.
class comparison {
public:
    explicit comparison(const conf::meta_data &meta_) : meta(meta_) {}

    // path with the indices of arrays for people, name without them for the meta data.
    void compare(const Json::Value *former, const Json::Value *next, const std::string &path,
                 const std::string &name) const {
        if (former && next && *former == *next)
            return;
        if (is_container(former) && is_container(next) && former->type() == next->type())
            compare_members(*former, *next, path, name);
        else
            std::cout << "  " << path << ": " << shown(former, name) << " -> " << shown(next, name) << "\n";
    }

private:
    static bool is_container(const Json::Value *value) {
        return value && (value->isObject() || value->isArray());
    }

    static const Json::Value *member(const Json::Value &value, const std::string &name) {
        return value.find(name.data(), name.data() + name.size());
    }

    void compare_members(const Json::Value &former, const Json::Value &next, const std::string &path,
                         const std::string &name) const {
        if (former.isArray()) {
            for (Json::ArrayIndex i = 0; i < std::max(former.size(), next.size()); ++i)
                compare(i < former.size() ? &former[i] : nullptr, i < next.size() ? &next[i] : nullptr,
                        path + "." + std::to_string(i), name);
            return;
        }
        std::set<std::string> names;
        for (const Json::Value *one : {&former, &next})
            for (const std::string &member_name : one->getMemberNames())
                names.insert(member_name);
        for (const std::string &one : names)
            compare(member(former, one), member(next, one), extended(path, one), extended(name, one));
    }

    static std::string extended(const std::string &path, const std::string &name) {
        return path.empty() ? name : path + "." + name;
    }

    std::string shown(const Json::Value *value, const std::string &name) const {
        if (!value)
            return "(none)";
        Json::Value copy = *value;
        hide(copy, name);
        return conf::one_line(copy);
    }

    void hide(Json::Value &value, const std::string &name) const {
        if (value.isObject()) {
            for (const std::string &one : value.getMemberNames())
                hide(value[one], extended(name, one));
        } else if (value.isArray()) {
            for (Json::Value &element : value)
                hide(element, name);
        } else if (meta.is_sensitive(name)) {
            value = "(hidden)";
        }
    }

    const conf::meta_data &meta;
};

} // namespace

int validate(const std::string &file) {
    const auto faults = conf::configuration_faults((file.empty() ? edited_or_running() : file).c_str());
    for (const conf::fault &one : faults)
        std::cerr << conf::to_text(one) << "\n";
    if (!faults.empty())
        return NO;
    std::cout << "valid\n";
    return YES;
}

int hash(const std::string &file) {
    std::cout << config_hash(read_document(file.empty() ? conf::RUNNING_CONFIG : file)) << "\n";
    return YES;
}

int diff(const std::string &file) {
    const std::string chosen = file.empty() ? edited_or_running() : file;
    const Json::Value former = conf::canonical(running_document());
    const Json::Value next = conf::canonical(read_document(chosen));
    const auto meta = conf::load_meta();
    if (!meta)
        throw trouble("there is no meta data");
    Json::Value changes;
    if (get_config_change_list(conf::RUNNING_CONFIG, chosen.c_str(), changes) != 0)
        throw trouble("the changes cannot be listed");
    for (const Json::Value &change : changes) {
        std::cout << change["path"].asString();
        for (const Json::Value &line : change["cmd_apply"])
            std::cout << " [" << line.asString() << "]";
        std::cout << "\n";
    }
    comparison(*meta).compare(&former, &next, "", "");
    return former == next ? YES : NO;
}

} // namespace vtrcfg
