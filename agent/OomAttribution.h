// Which limit a killed component ran into: its own, its group's, the whole agent's, or none of them (the host ran out).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "platform/zel/CgroupTreeStatus.h"

namespace agent {

/// Counters of one group as they were at an earlier look, by the path of its memory group.
struct OomCounters {
    int64_t kills = 0;
    int64_t limitHits = 0;
    int64_t ownOoms = 0;
};
using OomPicture = std::map<std::string, OomCounters>;

/// Pure: the counters of every group of the tree.
OomPicture TakeOomPicture(const zel::CgroupTreeStatus& tree);

/// One kill for memory.
struct OomKill {
    std::string words;    ///< for an operator
    std::string group;    ///< that the victim's leaf is in
    std::string limitOf;  ///< "component", "group", "agent" or "host": whose limit was run into
    std::string path;     ///< of the group with that limit; empty: the host's
    int64_t limitKb = 0;
};

/// Pure: what killed a process of `component` between the two looks; nothing when the kernel counted no kill for it.
/// Kernel: version 2 counts out-of-memory where the limit is ("oom" of memory.events.local); version 1 counts hits of
/// the limit (failcnt) there. The innermost group that counted is named. A kill that no limit accounts for is the
/// host's. A counter below its old value is that of a group made anew, which began at 0. Source: kernel documentation,
/// admin-guide/cgroup-v2.rst "Memory Interface Files", cgroup-v1/memory.rst 4.
std::optional<OomKill> ExplainOomKill(const OomPicture& before, const zel::CgroupTreeStatus& tree,
                                      const std::string& component);

/// The earlier look that each kill is compared with.
/// Victims of one moment have the same one. A new one is taken before a component starts, so that what happened in its
/// life before explains nothing of the next, and some seconds after a kill, whose counters then explain no other.
/// Times: SecondsSinceBoot(). Thread-safety: one thread.
class OomHistory {
public:
    /// Returns: false when the tree cannot be read; then what was seen before stays.
    using Reader = std::function<bool(zel::CgroupTreeStatus& tree)>;
    explicit OomHistory(Reader read) : m_read(std::move(read)) {}

    void BeforeStart(int64_t now);
    /// Returns: what killed a process of the component since the look; see ExplainOomKill.
    std::optional<OomKill> Explain(const std::string& component, int64_t now);
    /// To be called every second or so, after the ended components were asked about.
    void Tick(int64_t now);

private:
    void Look(int64_t now);

    Reader m_read;
    OomPicture m_picture;
    int64_t m_lookedAt = -1;
    int64_t m_explainedAt = -1;  // a kill, since the look
};

}  // namespace agent
