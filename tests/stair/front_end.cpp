// The one function that the client asks of the front end, for programs without one.
#include "agent/client/tessard.h"

void route_message(tessard &, const mosquitto_message *) {}
