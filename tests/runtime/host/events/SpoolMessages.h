// Messages as the tests of the spool put them in.
#pragma once

#include <string>

#include "events/EventSpool.h"

inline zelhost::SpoolMessage Message(const std::string& body) {
    zelhost::SpoolMessage m;
    m.time = 1700000000;
    m.type = "T";
    m.body = body;
    m.arg1 = 1;
    return m;
}
