// A broker as an operator sets it up, with an enrolled host, an administrator and a console, as a process of a test.
#pragma once

#include <cstdio>
#include <string>

#include "broker/NatsBroker.h"
#include "support/Files.h"

namespace fleet {

class EnrolledBroker {
public:
    /// Returns: whether keys can be made on this machine.
    static bool IsPossible();

    /// Starts it; `name`: of the host that is enrolled.
    explicit EnrolledBroker(const std::string& name);
    ~EnrolledBroker();
    EnrolledBroker(const EnrolledBroker&) = delete;
    EnrolledBroker& operator=(const EnrolledBroker&) = delete;

    /// kill -9, and waits for the end. Returns: false when it does not end in time.
    bool Kill();
    /// Starts it again on the same port.
    bool Start();
    /// Of the host's own connection.
    BrokerOptions Options(const std::string& host) const;
    /// Of a connection that may write the configuration and read the states.
    BrokerOptions AdminOptions() const;
    /// Returns: the credentials of "host", the administrator "chief" or the console "ann".
    std::string Credentials(const std::string& who) const;
    std::string Log() const;

private:
    bool Order(const std::string& word);

    support::TempDir m_directory;
    std::string m_port;
    int m_orders = 0;
    FILE* m_process = nullptr;
};

}  // namespace fleet
