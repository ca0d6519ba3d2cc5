#include "tests/sweep/flash.h"

#include "tests/sweep/ledger.h"

#include <algorithm>
#include <optional>
#include <set>

namespace sweep {

namespace {

// A change that has not reached the flash.
struct change {
    enum class type { REPLACE, WRITE, DELETE, RENAME } is;
    std::string path;
    std::string to;    // of a rename
    node content = {}; // of the first two

    bool touches(const std::string &folder) const;
};

// Which of the changes are there.
using selection = std::vector<bool>;

std::string folder_of(const std::string &path) {
    return path.substr(0, path.rfind('/'));
}

bool change::touches(const std::string &folder) const {
    return folder_of(path) == folder || (is == type::RENAME && folder_of(to) == folder);
}

bool share_folder(const change &left, const change &right) {
    return left.touches(folder_of(right.path)) ||
           (right.is == change::type::RENAME && left.touches(folder_of(right.to)));
}

void apply(const change &each, tree &files) {
    if (each.is == change::type::WRITE || each.is == change::type::REPLACE) {
        files[each.path] = each.content;
        return;
    }
    const auto found = files.find(each.path);
    if (found == files.end())
        return;
    if (each.is == change::type::RENAME)
        files[each.to] = found->second;
    files.erase(each.path);
}

bool is_persistent(const std::string &path) {
    return path.compare(0, PERSISTENT_FOLDER.size() + 1, PERSISTENT_FOLDER + "/") == 0;
}

std::optional<change> change_of(const entry &each) {
    if (each.kind != entry_kind::CHANGE)
        return std::nullopt;
    if (each.what == "delete_file" || each.what == "unlink" || each.what == "remove")
        return change{change::type::DELETE, each.text, ""};
    if (each.what != "rename")
        return std::nullopt;
    const size_t blank = each.text.find(' ');
    return change{change::type::RENAME, each.text.substr(0, blank), each.text.substr(blank + 1)};
}

// The flash, and what is on its way there.
class disk {
public:
    explicit disk(const tree &settled) : there(settled), seen(settled) {}

    void take(const entry &each) {
        if (each.kind == entry_kind::SYNCED) {
            there = seen;
            pending.clear();
        } else if (each.kind == entry_kind::REPLACED && is_persistent(each.what)) {
            add({change::type::REPLACE, each.what, "", file_of(each)});
        } else if (each.kind == entry_kind::WRITTEN && is_persistent(each.what)) {
            add({change::type::WRITE, each.what, "", file_of(each)});
        } else if (const auto found = change_of(each);
                   found && is_persistent(found->path) && seen.count(found->path) != 0) {
            add(*found);
        }
    }

    const tree &all() const { return seen; }
    const std::vector<change> &on_the_way() const { return pending; }

    tree with(const selection &chosen) const {
        tree files = there;
        for (size_t i = 0; i < pending.size(); i++)
            if (chosen[i])
                apply(pending[i], files);
        return files;
    }

private:
    static node file_of(const entry &each) { return {node::type::FILE, each.text, {each.at, 0}}; }

    void add(const change &each) {
        apply(each, seen);
        pending.push_back(each);
    }

    tree there;
    tree seen;
    std::vector<change> pending;
};

// A change can be there when all earlier ones of its folders are.
bool may_come(const std::vector<change> &changes, const selection &chosen, size_t next) {
    for (size_t i = 0; i < next; i++)
        if (!chosen[i] && share_folder(changes[i], changes[next]))
            return false;
    return true;
}

void choose_from(const std::vector<change> &changes, size_t next, selection &chosen,
                 std::vector<selection> &all) {
    if (all.size() >= flash::MOST_STATES)
        return;
    if (next == changes.size()) {
        all.push_back(chosen);
        return;
    }
    choose_from(changes, next + 1, chosen, all);
    if (!may_come(changes, chosen, next))
        return;
    chosen[next] = true;
    choose_from(changes, next + 1, chosen, all);
    chosen[next] = false;
}

// All changes but those of one folder, and what comes with these.
std::vector<selection> without_one_folder(const std::vector<change> &changes) {
    std::set<std::string> folders;
    for (const change &each : changes)
        folders.insert(folder_of(each.path));
    std::vector<selection> all;
    for (const std::string &folder : folders) {
        selection chosen(changes.size());
        for (size_t i = 0; i < changes.size(); i++)
            chosen[i] = !changes[i].touches(folder) && may_come(changes, chosen, i);
        all.push_back(chosen);
    }
    return all;
}

std::vector<selection> selections(const std::vector<change> &changes) {
    std::vector<selection> all;
    selection none(changes.size());
    choose_from(changes, 0, none, all);
    if (all.size() == flash::MOST_STATES)
        for (const selection &each : without_one_folder(changes))
            all.push_back(each);
    return all;
}

bool same_files(const tree &left, const tree &right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const auto &one, const auto &other) {
                          return one.first == other.first && one.second.is == other.second.is &&
                                 one.second.text == other.second.text;
                      });
}

tree read_persistent() {
    return read_tree({PERSISTENT_FOLDER});
}

disk disk_now(const tree &settled, size_t known_entries) {
    disk now(settled);
    const auto &ledger = read_ledger();
    for (size_t i = known_entries; i < ledger.size(); i++)
        now.take(ledger[i]);
    return now;
}

} // namespace

void flash::settle() {
    settled = read_persistent();
    known_entries = read_ledger().size();
}

std::vector<tree> flash::after_power_cut() const {
    const disk now = disk_now(settled, known_entries);
    std::vector<tree> states;
    for (const selection &each : selections(now.on_the_way())) {
        const tree state = now.with(each);
        const bool known = same_files(state, now.all()) ||
                           std::any_of(states.begin(), states.end(),
                                       [&](const tree &other) { return same_files(state, other); });
        if (!known)
            states.push_back(state);
    }
    return states;
}

std::vector<tree> flash::torn() const {
    const disk now = disk_now(settled, known_entries);
    std::vector<tree> states;
    for (const change &each : now.on_the_way()) {
        const auto found = now.all().find(each.path);
        if (each.is != change::type::WRITE || found == now.all().end() ||
            found->second.text != each.content.text)
            continue;
        const std::string &whole = each.content.text;
        for (const size_t size : std::set<size_t>{whole.size() / 2, 0}) {
            if (size == whole.size())
                continue;
            states.push_back(now.all());
            states.back()[each.path].text = whole.substr(0, size);
        }
    }
    return states;
}

std::string flash::unexplained() const {
    const tree told = disk_now(settled, known_entries).all();
    const tree found = read_persistent();
    for (const auto &[path, each] : found)
        if (const auto known = told.find(path); known == told.end() || known->second.text != each.text)
            return path + " holds: " + each.text;
    for (const auto &[path, each] : told)
        if (found.count(path) == 0)
            return path + " is gone, which held: " + each.text;
    return "";
}

} // namespace sweep
