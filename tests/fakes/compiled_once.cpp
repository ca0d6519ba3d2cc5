#define COMPILED_ONCE
#include "tests/fakes/compiled_once.h"
