// Folders of files, kept in memory.
#pragma once

#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace sweep {

struct node {
    enum class type { FILE, LINK, FOLDER } is = type::FILE;
    std::string text; // a link's target
    timespec modified = {};
    size_t place = 0; // among the names of its folder, as they are listed
};

// By path, so that a folder comes before what is in it.
using tree = std::map<std::string, node>;

// All that lies below these folders; not what is mounted there.
tree read_tree(const std::vector<std::string> &folders);

// Makes the folders hold this and nothing else, but for what is mounted there; they are listed as before. A file that
// is open for writing may be another one afterwards.
void put_back(const tree &kept, const std::vector<std::string> &folders);

} // namespace sweep
