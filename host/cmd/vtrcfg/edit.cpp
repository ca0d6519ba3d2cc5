// get, set, unset, discard.
#include "host/cmd/canonical.h"
#include "host/cmd/dotted.h"
#include "host/cmd/fault.h"
#include "host/cmd/paths.h"
#include "host/cmd/vtrcfg/commands.h"
#include "host/cmd/vtrcfg/documents.h"
#include "host/vantrel/json_text.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <iostream>

namespace vtrcfg {
namespace {

void print(const Json::Value &value) {
    if (value.isString()) {
        std::cout << value.asString() << "\n";
        return;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    std::cout << Json::writeString(builder, value) << "\n";
}

// Changes come one after the other, so a fault now may be gone with the next.
void note_faults() {
    for (const conf::fault &one : conf::configuration_faults(conf::EDITED_CONFIG))
        std::cerr << "not valid yet: " << conf::to_text(one) << "\n";
}

} // namespace

int get(const std::string &path, bool plain, bool edited) {
    Json::Value document = edited ? read_document(conf::EDITED_CONFIG) : running_document();
    if (plain)
        document = conf::canonical(document);
    const Json::Value *found = conf::find_member(document, path);
    if (!found) {
        std::cerr << "vtrcfg: there is no " << path << "\n";
        return NO;
    }
    print(*found);
    return YES;
}

int set(const std::string &path, const std::string &value, bool as_text) {
    if (!is_utf8(path) || !is_utf8(value))
        throw trouble("PATH and VALUE have to be UTF-8");
    Json::Value parsed;
    if (as_text || !parse_json(value, parsed))
        parsed = value;
    Json::Value document = document_to_edit();
    if (path.empty() || !conf::set_member(document, path, parsed))
        throw trouble("there is no place for " + path);
    keep_edited(document);
    note_faults();
    return YES;
}

int unset(const std::string &path) {
    Json::Value document = document_to_edit();
    if (!conf::remove_member(document, path)) {
        std::cerr << "vtrcfg: there is no " << path << "\n";
        return NO;
    }
    keep_edited(document);
    note_faults();
    return YES;
}

int discard() {
    forget_edited();
    if (is_lost_request()) {
        delete_file(conf::NEW_CONFIG);
        delete_file(conf::NEW_HASH);
        clear_config_apply_in_progress();
    }
    return YES;
}

} // namespace vtrcfg
