#include "host/orvmqtt/extra_subscriptions.h"

#include <fstream>

namespace {

constexpr const char *LIST_FILE = "/etc/tessard/extra-subscriptions";
constexpr const char *WHITE_SPACE = " \t\r";

std::string trimmed(const std::string &line) {
    const size_t first = line.find_first_not_of(WHITE_SPACE);
    if (first == std::string::npos)
        return "";
    return line.substr(first, line.find_last_not_of(WHITE_SPACE) - first + 1);
}

} // namespace

std::vector<std::string> extra_subscriptions() {
    std::vector<std::string> topics;
    std::ifstream file(LIST_FILE);
    for (std::string line; std::getline(file, line);) {
        const std::string topic = trimmed(line);
        if (!topic.empty() && topic[0] != '#')
            topics.push_back(topic);
    }
    return topics;
}
