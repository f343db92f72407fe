// The broker's process is ordered by lines, and answers with a file for each.
#include "fleet/EnrolledBroker.h"

#include <cstdlib>

#include "support/Waiting.h"

namespace fleet {

bool EnrolledBroker::IsPossible() {
    return std::system("python3 -c 'import cryptography' >/dev/null 2>&1") == 0;
}

EnrolledBroker::EnrolledBroker(const std::string& name) {
    const std::string log = m_directory / "log";
    const std::string command = std::string("PYTHONDONTWRITEBYTECODE=1 exec " ZEL_ENROLLED_BROKER " '") +
                                m_directory.Path() + "' '" + name + "' >'" + log + "' 2>&1";
    m_process = popen(command.c_str(), "w");
    support::Eventually([&] { return support::Exists(m_directory / "ready"); });
    m_port = support::ReadText(m_directory / "ready");
}

EnrolledBroker::~EnrolledBroker() {
    pclose(m_process);
}

bool EnrolledBroker::Order(const std::string& word) {
    fputs((word + "\n").c_str(), m_process);
    fflush(m_process);
    const std::string done = "done." + std::to_string(++m_orders);
    return support::Eventually([&] { return support::Exists(m_directory / done); });
}

bool EnrolledBroker::Kill() {
    return Order("kill");
}

bool EnrolledBroker::Start() {
    return Order("start");
}

BrokerOptions EnrolledBroker::Options(const std::string& host) const {
    BrokerOptions options;
    options.servers = {"tls://127.0.0.1:" + m_port};
    options.host = host;
    options.caFile = m_directory / "fleet/tls/ca.pem";
    options.credsFile = Credentials("host");
    options.reconnectMs = 50;
    return options;
}

BrokerOptions EnrolledBroker::AdminOptions() const {
    BrokerOptions options = Options("chief");
    options.credsFile = Credentials("chief");
    return options;
}

std::string EnrolledBroker::Credentials(const std::string& who) const {
    return m_directory / (who == "host" ? "host.creds" : "fleet/creds/" + who + ".creds");
}

std::string EnrolledBroker::Log() const {
    return support::ReadText(m_directory / "log");
}

}  // namespace fleet
