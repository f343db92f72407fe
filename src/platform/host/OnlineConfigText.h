// The text of an online configuration, judged as every process of the agent judges it, for programs that write one.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/zel/Export.h"

class COnlineClientConf;

namespace zelhost {

/// One thing for which a text is refused.
struct OnlineFinding {
    std::string key;     ///< empty: it is about the whole text
    std::string value;   ///< as it stands there, fit for one line
    std::string reason;  ///< what is wrong
};

/// Values by their names in the online configuration.
using OnlineNumbers = std::map<std::string, long>;

/// Returns: everything for which a process would refuse the text; when that is nothing, `values` holds what it would
/// take over. Pure.
ZEL_API std::vector<OnlineFinding> JudgeOnlineText(const std::string& text, OnlineNumbers& values);

/// What is published in this process now. Any thread.
ZEL_API OnlineNumbers GetPublishedValues(const COnlineClientConf& conf);

}  // namespace zelhost
