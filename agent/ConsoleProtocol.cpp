// The first line and what follows it.
#include "ConsoleProtocol.h"

namespace agent {

namespace {

constexpr size_t kMostDigits = 9;

base::Error Malformed(const std::string& reason) {
    return base::SentenceError(reason, base::ErrorKind::kMalformed);
}

}  // namespace

std::string FormatAnswer(const Answer& answer) {
    if (answer.body.size() > kMostAnswerBytes) return FormatAnswer({false, "the answer is too long for a console\n"});
    return (answer.ok ? "ok " : "error ") + std::to_string(answer.body.size()) + "\n" + answer.body;
}

base::Result<Answer> ParseAnswer(const std::string& text) {
    const size_t end = text.find('\n');
    const size_t blank = text.substr(0, end).find(' ');
    if (end == std::string::npos || blank == std::string::npos) {
        return Malformed("the answer is cut off or none of this console's");
    }
    const std::string word = text.substr(0, blank);
    const std::string digits = text.substr(blank + 1, end - blank - 1);
    const bool number =
        !digits.empty() && digits.size() <= kMostDigits && digits.find_first_not_of("0123456789") == std::string::npos;
    if (!number || (word != "ok" && word != "error")) return Malformed("the answer is none of this console's");
    const size_t promised = std::stoul(digits);
    const size_t came = text.size() - end - 1;
    if (came != promised) {
        return Malformed("the answer is cut off: " + std::to_string(came) + " of " + std::to_string(promised) +
                         " bytes came");
    }
    return Answer{word == "ok", text.substr(end + 1)};
}

}  // namespace agent
