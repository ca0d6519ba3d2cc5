// Topics that the library subscribes by itself, beside what the client asks for.
//
// The device's image lists them in /etc/tessard/extra-subscriptions: one topic a line, white space
// around it ignored, empty lines and lines that begin with '#' skipped. Read anew at every connect; no
// file, no topic.
#pragma once

#include <string>
#include <vector>

std::vector<std::string> extra_subscriptions();
