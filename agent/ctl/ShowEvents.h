// What was delivered and what is stored, from the files of an application directory; needs no running agent.
#pragma once

#include <string>

namespace agent {

std::string ShowEvents(const std::string& appDir, const std::string& process, unsigned int last);

}  // namespace agent
