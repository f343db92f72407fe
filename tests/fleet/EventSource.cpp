// A component of the agent that sends events through the host library, as an agent maker's program would: numbered
// ones, as many as a file allows so far, into its own spool and from there to this host's relay.
//   FleetEventSource NAME
// Below the application directory: "allowed" holds how many every source may have sent, NAME.accepted gets a byte for
// each event that was accepted. Killed at any place it goes on behind what that file says; the event in between comes
// under two numbers of its spool then.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/host/HostServices.h"
#include "platform/host/MsgTransmit.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/ToolUtil.h"

namespace {

constexpr useconds_t kLookUs = 20000;
constexpr int kEventsPerLook = 50;

zelhost::HostOptions OptionsOf(const std::string& name, const std::string& directory) {
    zelhost::HostOptions options;
    options.processName = name;
    options.appDir = directory;
    options.statisticsDbPath = "-";
    options.metrics.enabled = zelhost::Switch::kOff;
    options.delivery.jsonLinesPath = "-";
    options.delivery.fleetSocket = directory + zel::kFleetSocketFile;
    options.delivery.backoffMaxMs = 2000;
    return options;
}

int64_t Allowed(const std::string& directory) {
    int64_t number = 0;
    std::ifstream(directory + "/allowed") >> number;
    return number;
}

bool SendOne(const std::string& name, int64_t number, int record) {
    const std::string body = "{\"number\": " + std::to_string(number) + "}";
    return GetMsgTransmitInstance()->SendMsg("T_MSG_OS_ABNORMAL", body, name, 1, 0) && write(record, "+", 1) == 1;
}

}  // namespace

int main(int count, char** words) {
    if (count != 2) return 2;
    const std::string name = words[1];
    const std::string directory = zel::CToolUtil::GetApplicationDirPath();
    zel::LogOptions log;
    log.processName = name;
    zel::ConfigureLog(log);
    const int record =
        open((directory + "/" + name + ".accepted").c_str(), O_CREAT | O_RDWR | O_APPEND | O_CLOEXEC, 0640);
    struct stat about {};
    if (record < 0 || fstat(record, &about) != 0) return 3;
    zelhost::CHostServices services;
    std::string problem;
    if (!services.Start(OptionsOf(name, directory), problem)) {
        fprintf(stderr, "%s\n", problem.c_str());
        return 4;
    }
    for (int64_t sent = about.st_size;;) {
        const int64_t most = Allowed(directory);
        for (int i = 0; i < kEventsPerLook && sent < most; ++i) {
            if (!SendOne(name, sent + 1, record)) break;  // refused: no room, tried again at the next look
            ++sent;
        }
        if (sent >= most) usleep(kLookUs);
    }
}
