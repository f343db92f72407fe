// The console's mode as a process of a test: requests in, answers out.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "broker/NatsBroker.h"

namespace fleet {

class ConsoleProcess {
public:
    /// `more`: further options.
    explicit ConsoleProcess(const BrokerOptions& options, const std::vector<std::string>& more = {});
    explicit ConsoleProcess(const std::vector<std::string>& words);
    ~ConsoleProcess();
    ConsoleProcess(const ConsoleProcess&) = delete;
    ConsoleProcess& operator=(const ConsoleProcess&) = delete;

    /// Sends it as it is.
    bool SendText(const std::string& text);
    /// Returns: the id that it was sent with.
    int64_t Send(Json::Value request);
    /// Returns: the next line that comes, for any id; null: none within the patience.
    Json::Value NextLine();
    /// Returns: the next line of that id; others are kept.
    Json::Value Next(int64_t id);
    /// Sends it and gathers its items. Returns: the last answer.
    Json::Value Ask(const Json::Value& request, std::vector<Json::Value>* items = nullptr);
    /// Closes its input. Returns: what it ends with; -1: it does not end.
    int End();
    void CloseOutput();
    int Output() const { return m_out; }
    /// Returns: its memory that is nobody else's, in KiB.
    int64_t ReadPrivateKb() const;
    /// Returns: what it ends with by itself; -1: it does not.
    int WaitForEnd();
    std::string Errors();

private:
    void Start(const std::vector<std::string>& words);
    bool Fill();

    pid_t m_pid = -1;
    int m_in = -1, m_out = -1, m_err = -1;
    int64_t m_lastId = 0;
    std::string m_buffer;
    std::map<int64_t, std::deque<Json::Value>> m_kept;
};

/// Returns: the object that the text is.
Json::Value JsonOf(const std::string& text);

}  // namespace fleet
