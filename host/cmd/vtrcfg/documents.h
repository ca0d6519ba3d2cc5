// The documents that the commands work on.
#pragma once

#include <json/json.h>

#include <string>

namespace vtrcfg {

bool has_edited();

// All throw trouble when the document cannot be read.
Json::Value read_document(const std::string &file);
Json::Value running_document();

// The edited configuration; when there is none, or what was edited is running by now, the running one.
// Throws trouble when the running configuration has become another since the editing began: the edited
// one would take that change back.
Json::Value document_to_edit();

// Keeps the document, its sensitive fields encoded, and marks that something is not committed.
void keep_edited(const Json::Value &document);

void forget_edited();

// The reasons why the edited configuration must not be requested any more, or empty.
std::string edited_is_stale();

// A candidate waits for its apply, or is being applied.
bool has_candidate();

// The system-wide mark: an apply is queued or under way.
bool apply_is_marked();

// There is a candidate or the mark of an apply, but no job for it is queued or under way: its request was refused,
// lost or cleared.
bool is_lost_request();

} // namespace vtrcfg
