// Every name that more than one process, library or document of the agent must spell alike, once: processes,
// components, groups, files, messages, bits of the limit mode. A test fails on a second definition of any of them.
#pragma once

namespace zel {

// --- processes and components ---------------------------------------------------------------------------------------

/// Application name of the agent's main process, which alone owns the control groups. Any other name is a component.
constexpr char kMainProcessName[] = "tervane";
/// Component of the main process. Not its application name, which is all lower case.
constexpr char kMainComponent[] = "Tervane";
constexpr char kMonitorComponent[] = "TervaneMonitor";
constexpr char kUpdateComponent[] = "TervaneUpdate";
constexpr char kHipsComponent[] = "QorHips";
constexpr char kNetComponent[] = "QorNet";
constexpr char kWebGuardComponent[] = "QorWebGuard";
/// Brings events to the fleet's broker; there only while a fleet is configured.
constexpr char kRelayComponent[] = "TervaneRelay";

// --- control groups -------------------------------------------------------------------------------------------------

/// Group of the main process; it exists in every tree, whatever groups are configured.
constexpr char kMainGroup[] = "main";
constexpr char kGuardGroup[] = "guard";
constexpr char kCollectGroup[] = "collect-defense";

// --- directories ----------------------------------------------------------------------------------------------------

/// Application directory where none is named.
constexpr char kDefaultAppDir[] = "/var/lib/tervane";
/// Where the files of an administrator are that the default application directory has none of in its conf/.
constexpr char kAdminConfDir[] = "/etc/tervane";

// --- files, each with the slash that joins it to its directory ------------------------------------------------------

/// Below the global configuration directory: which component belongs into which group, with what quota.
constexpr char kComponentFileName[] = "/cgroup_resource.json";
/// Below the global configuration directory: the out-of-memory counters that were last reported.
constexpr char kOomWatermarkFileName[] = "/cgroup_oom_watermark.json";
constexpr char kOomCarriedFileName[] = "/cgroup_oom_carried.json";
/// Below the application directory.
constexpr char kAgentConfigFileName[] = "/conf/agent.json";
constexpr char kResourceConfigFileName[] = "/conf/resource_config";
constexpr char kOnlineConfigFileName[] = "/conf/online_config.json";
constexpr char kComponentsFileName[] = "/conf/components.json";
/// What the console has changed, so that it can take it back.
constexpr char kConfigChangesFileName[] = "/conf/config_changes.json";
constexpr char kCgroupErrorFileName[] = "/cgroup_errors";
constexpr char kCurrentOsAbnormalDbName[] = "/current_os_abnormal.db";
constexpr char kLastOsAbnormalDbName[] = "/last_os_abnormal.db";
constexpr char kBroadcastSocketName[] = "/run/broadcast.sock";
/// Where the relay takes the events of the agent's processes.
constexpr char kFleetSocketFile[] = "/run/fleet.sock";
/// The relay's program: in the directory of the agent's own programs, or in this one beside that.
constexpr char kRelayProgram[] = "/tervane-relay";
constexpr char kRelayDirectory[] = "/libexec/tervane";

// --- messages -------------------------------------------------------------------------------------------------------

/// To the host: something abnormal on the machine or in the agent's groups.
constexpr char kOsAbnormalMessage[] = "T_MSG_OS_ABNORMAL";
/// Between the agent's processes: the component file has changed.
constexpr char kConfigNotifyMessage[] = "T_MSG_IPC_CGROUP_CONFIG_NOTIFY";
constexpr char kSelfKillMessage[] = "T_MSG_SELF_KILL";
constexpr char kThreadStallMessage[] = "T_MSG_THREAD_STALL";
constexpr char kComponentEndMessage[] = "T_MSG_COMPONENT_END";
constexpr char kUncleanStopMessage[] = "T_MSG_UNCLEAN_STOP";
constexpr char kLimitDriftMessage[] = "T_MSG_LIMIT_DRIFT";
constexpr char kHostPressureMessage[] = "T_MSG_HOST_PRESSURE";
constexpr char kLimitStallMessage[] = "T_MSG_LIMIT_STALL";
constexpr char kObservationMessage[] = "T_MSG_LIMITS_OBSERVED";
constexpr char kWouldKillMessage[] = "T_MSG_WOULD_KILL";

// --- bits of the limit mode -----------------------------------------------------------------------------------------

constexpr int kModeCpu = 1;      ///< limit the CPU
constexpr int kModeMemory = 4;   ///< limit the memory
constexpr int kModeUnified = 8;  ///< a group for each group and component instead of one for all

}  // namespace zel
