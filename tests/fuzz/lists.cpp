// The lists of which the fakes are told that another file has them (tests/fakes/compiled_once.h): that file has the
// matchers of tests too, and would bring the fakes' log with it.
#include "platform/mqtt_orv.h"
#include "tests/fakes/mqtt.h"

#include <map>
#include <set>
#include <string>
#include <vector>

template class std::__cxx11::basic_string<char>;
template class std::vector<std::string>;
template class std::set<std::string>;
template class std::vector<const char *>;
template class std::vector<fakes::published_message>;
template class std::map<ORV_MQTT_RC, std::string>;
